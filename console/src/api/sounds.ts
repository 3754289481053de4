import { all, patch, post, remove } from './http'

export interface Sound {
  id: number
  name: string
  seconds: number | null
  bytes: number | null
  url: string
  created: string | null
}

export interface Speech {
  text: string
  voice?: string
  speed?: number // 0 to 100; 50 is the usual one
}

export interface Voice {
  id: string
  name: string
  language: string
}

const slow = { patience: 180_000 } // encoding a long recording

export const sounds = (q?: string): Promise<Sound[]> => all('/sounds', { q })
export const upload = (file: File, name: string): Promise<Sound> =>
  post('/sounds', new Blob([file], { type: file.type || 'application/octet-stream' }), { ...slow, query: { name } })
export const speak = (speech: Speech & { name: string }): Promise<Sound> => post('/sounds/speech', speech, slow)
export const renameSound = (id: number, name: string): Promise<Sound> => patch(`/sounds/${id}`, { name })
export const removeSound = (id: number): Promise<void> => remove(`/sounds/${id}`)

export const voices = (): Promise<Voice[]> => all('/voices')

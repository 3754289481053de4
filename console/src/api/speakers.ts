import { all, get, pages, patch, post, remove } from './http'

export type SpeakerState = 'offline' | 'idle' | 'playing' | 'live'
export type Health = 'ok' | 'flaky' | 'silent' | 'offline'

export interface Speaker {
  serial: string
  name: string
  state: SpeakerState
  volume: number | null
  address: string | null
  firmware: string | null
  battery: number | null
  enabled: boolean
  owner: number | null
  groups: number[]
  since: string | null
  lastSeen: string | null
  playing: { broadcast: number | null; name: string } | null
  node: number | string | null
  health?: Health
}

/** Which speakers an order is for; "all" are those that the account may play to. */
export type Targets = { speakers?: string[]; groups?: number[] } | { all: true }

export const speakerPages = (signal?: AbortSignal): AsyncGenerator<Speaker[]> => pages('/speakers', {}, signal)
export const speaker = (serial: string): Promise<Speaker> => get(`/speakers/${serial}`)
export const addSpeaker = (serial: string, name: string): Promise<Speaker> => post('/speakers', { serial, name })
export const changeSpeaker = (serial: string, changes: Partial<Pick<Speaker, 'name' | 'volume' | 'enabled'>>): Promise<Speaker> =>
  patch(`/speakers/${serial}`, changes)
export const removeSpeaker = (serial: string): Promise<void> => remove(`/speakers/${serial}`)
export const setVolume = (targets: Targets, volume: number): Promise<{ targets: number; reached: number }> =>
  post('/speakers/volume', { targets, volume })

export interface Group {
  id: number
  name: string
  owner: number
  speakers: string[]
  groups: number[]
}

export const groups = (): Promise<Group[]> => all('/groups')
export const addGroup = (group: { name: string; speakers?: string[]; groups?: number[] }): Promise<Group> =>
  post('/groups', group)
export const changeGroup = (id: number, changes: Partial<Pick<Group, 'name' | 'speakers' | 'groups'>>): Promise<Group> =>
  patch(`/groups/${id}`, changes)
export const removeGroup = (id: number): Promise<void> => remove(`/groups/${id}`)

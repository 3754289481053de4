import { get } from './http'

export type System = Record<string, unknown>

export const system = (): Promise<System> => get('/system')

/** What this service is: what it offers is what the page shows. */
export interface About {
  version: string
  websocket: number | null // port of the WebSocket front; null while it is closed
  paths: string[] // "/speakers/{serial}"
}

export const about = (): Promise<About> => get('/about')

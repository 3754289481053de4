import { get, pages, post, send, type Page, type Query } from './http'
import type { Speech } from './sounds'
import type { Targets } from './speakers'

export type BroadcastState = 'waiting' | 'playing' | 'done' | 'stopped' | 'failed'
export const receiptStates = [
  'started', 'sent', 'waiting', 'completed', 'offline', 'refused', 'overruled', 'lost', 'silent', 'stopped',
] as const
export type ReceiptState = (typeof receiptStates)[number]

export interface Broadcast {
  id: number
  kind: 'announcement' | 'bell' | 'live' | 'alarm' | 'direct'
  name: string
  priority: number
  origin: Record<string, unknown> | null
  state: BroadcastState
  reason: string | null
  due: string | null
  started: string | null
  ended: string | null
  late: number | null
  counts: { targets: number } & Record<ReceiptState, number>
}

export interface Receipt {
  serial: string
  state: ReceiptState
  reason: string | null
  by: number | null
  sent: string | null
  started: string | null
  ended: string | null
}

export type Title = { sound: number } | { url: string } | { speech: Speech }

export interface Order {
  targets: Targets
  play: Title[]
  name: string
  repeat: number
  volume?: number
  priority: number
  whenBusy: 'interrupt' | 'queue' | 'skip'
  queueSeconds: number
  resume: 'none' | 'start' | 'position'
}

export const isOver = (broadcast: Broadcast): boolean => broadcast.state !== 'waiting' && broadcast.state !== 'playing'

export const announce = (order: Order): Promise<Broadcast> => post('/broadcasts', order, { patience: 60_000 })
export const broadcast = (id: number): Promise<Broadcast> => get(`/broadcasts/${id}`)
export const broadcasts = (query: Query): Promise<Page<Broadcast>> => get('/broadcasts', query)
export const broadcastPages = (query: Query): AsyncGenerator<Broadcast[]> => pages('/broadcasts', query)
export const receipts = (id: number, query: Query): Promise<Page<Receipt>> => get(`/broadcasts/${id}/receipts`, query)
export const receiptsCsv = async (id: number): Promise<Blob> =>
  (await send('GET', `/broadcasts/${id}/receipts`, { accept: 'text/csv' })).blob()
export const stop = (id: number): Promise<unknown> => post(`/broadcasts/${id}/stop`)
export const repeat = (id: number): Promise<Broadcast> => post(`/broadcasts/${id}/repeat`)

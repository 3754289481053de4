import { get, pages, type Page, type Query } from './http'

export const journalKinds = ['bell', 'announcement', 'live', 'alarm', 'direct', 'speaker', 'service', 'link'] as const

export interface JournalLine {
  id: number
  at: string
  kind: (typeof journalKinds)[number]
  state: string
  name: string | null
  reason: string | null
  due: string | null
  late: number | null
  broadcast: number | null
  schedule: number | null
  serial: string | null
}

export const journal = (query: Query, signal?: AbortSignal): Promise<Page<JournalLine>> => get('/journal', query, signal)
export const journalPages = (query: Query): AsyncGenerator<JournalLine[]> => pages('/journal', query)

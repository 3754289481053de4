/**
 * What the service tells all the time: speakers, broadcasts, journal. By events, or while there are none by
 * asking again and again, as often as the answers come quickly.
 */
import { computed, ref, shallowRef } from 'vue'
import { broadcastPages, type Broadcast } from '@/api/broadcasts'
import { whenAnswered } from '@/api/http'
import { journal, type JournalLine } from '@/api/journal'
import { me } from '@/api/session'
import { speakerPages, type Speaker } from '@/api/speakers'
import { offers, session, whenSessionChanges } from '@/state/session'
import { Events, type Topic } from './events'
import { Table } from './table'

const shortestRound = 3_000 // ms between two rounds of asking
const heartbeat = 10_000 // ms; a connection may die without a word
const keptBroadcasts = 200
const keptLines = 300

export const speakerTable = new Table<string, Speaker>((speaker) => speaker.serial)
export const broadcastTable = new Table<number, Broadcast>((broadcast) => broadcast.id)
export const journalTable = new Table<number, JournalLine>((line) => line.id)

type State = 'starting' | 'live' | 'lost'
const state = ref<State>('starting')
export const connection = {
  state: computed(() => state.value),
  isLost: computed(() => state.value === 'lost'),
  since: shallowRef(new Date()), // of the last news
}

let events: Events | null = null
let round = 0
let pulse = 0
let asking = false
let generation = 0 // what an earlier round still brings is dropped

/** Address of the events, or null where the service has none. */
function eventsAddress(): string | null {
  const port = session.eventsPort.value
  const secure = location.protocol === 'https:'
  return port ? `${secure ? 'wss' : 'ws'}://${location.hostname}:${port}/` : null
}

function topics(): Topic[] {
  const paths: Record<Topic, string> = { speakers: '/speakers', broadcasts: '/broadcasts', journal: '/journal' }
  return (Object.keys(paths) as Topic[]).filter((topic) => offers(paths[topic]))
}

const tables = { speakers: speakerTable, broadcasts: broadcastTable, journal: journalTable }
type AnyTable = Table<string | number, unknown>
const tableOf = (topic: Topic): AnyTable => tables[topic] as unknown as AnyTable

const forgetPending = (): void => Object.values(tables).forEach((table) => table.forgetPending())

/** Lists that only grow are cut to the newest. */
function trim<T>(table: Table<number, T>, most: number): void {
  const keys = [...table.rows.value.keys()]
  if (keys.length > most + 100) table.gone(keys.sort((a, b) => a - b).slice(0, keys.length - most))
}

const handlers = {
  snapshot(topic: Topic, items: unknown[], more: boolean): void {
    connection.since.value = new Date()
    tableOf(topic)?.snapshot(items, more)
  },
  change(topic: Topic, items: unknown[]): void {
    connection.since.value = new Date()
    tableOf(topic)?.change(items)
    trim(broadcastTable, keptBroadcasts)
    trim(journalTable, keptLines)
  },
  gone: (topic: Topic, ids: (string | number)[]): void => tableOf(topic)?.gone(ids),
  connected(yes: boolean): void {
    if (yes || !asking) forgetPending()
    if (yes) {
      stopAsking()
      state.value = 'live'
    } else if (!asking) {
      if (state.value === 'live') state.value = 'lost'
      startAsking()
    }
  },
  refused: (): void => void me().catch(() => {}), // ends the session when the token is void
}

async function fill(topic: Topic): Promise<void> {
  if (topic === 'journal') return journalTable.snapshot((await journal({ limit: 200 })).items, false)
  const current = generation
  const pages: AsyncGenerator<unknown[]> =
    topic === 'speakers' ? speakerPages() : limited(broadcastPages({ limit: 100 }), keptBroadcasts)
  let waiting: unknown[] | null = null
  for await (const items of pages) {
    if (current !== generation) return
    if (waiting) tableOf(topic).snapshot(waiting, true)
    waiting = items
  }
  if (current === generation) tableOf(topic).snapshot(waiting ?? [], false)
}

async function* limited<T>(pages: AsyncGenerator<T[]>, most: number): AsyncGenerator<T[]> {
  let count = 0
  for await (const items of pages) {
    yield items
    if ((count += items.length) >= most) return
  }
}

async function askAll(): Promise<void> {
  const current = generation
  const began = performance.now()
  try {
    for (const topic of topics()) await fill(topic)
    if (current !== generation) return
    state.value = 'live'
    connection.since.value = new Date()
  } catch {
    if (current !== generation) return
    forgetPending()
  }
  const pause = state.value === 'lost' ? shortestRound : Math.max(shortestRound, 5 * (performance.now() - began))
  if (asking) round = window.setTimeout(() => void askAll(), pause)
}

// Asking is the way without events: none are told, or their port can't be reached.
function startAsking(): void {
  if (asking) return
  asking = true
  void askAll()
}

function stopAsking(): void {
  asking = false
  generation++
  clearTimeout(round)
}

/** Asks for news now, after an order whose effect should be seen at once. */
export function refresh(): void {
  if (!asking || !session.me.value) return
  stopAsking()
  forgetPending()
  startAsking()
}

/** Tries the connection again without waiting for the next attempt. */
export function reconnect(): void {
  events?.now()
  refresh()
}

function end(): void {
  stopAsking()
  clearInterval(pulse)
  events?.end()
  events = null
  forgetPending()
}

function begin(): void {
  end()
  state.value = 'starting'
  if (!session.me.value) return Object.values(tables).forEach((table) => table.clear())
  const address = eventsAddress()
  if (!address) return startAsking()
  events = new Events(address, session.token.value, topics(), handlers)
  pulse = window.setInterval(() => void me().catch(() => events?.drop()), heartbeat)
}

whenSessionChanges(begin)
addEventListener('offline', () => {
  if (session.me.value) state.value = 'lost'
  events?.drop()
})
whenAnswered((reached) => {
  if (!session.me.value) return
  if (!reached) state.value = 'lost'
  else if (asking && state.value === 'lost') state.value = 'live'
})

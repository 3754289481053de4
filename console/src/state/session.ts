/** Who is logged in, until when the token holds, and what this account and this service can do. */
import { computed, reactive, ref } from 'vue'
import { grants, type Grant } from '@/api/accounts'
import { Problem, setToken, whenTokenIsVoid } from '@/api/http'
import * as api from '@/api/session'
import { about } from '@/api/system'

const key = 'speakerd.token' // for this tab, so that a reload stays logged in

const state = reactive({
  me: null as api.Me | null,
  grants: [] as Grant[],
  paths: new Set<string>(),
  eventsPort: 0,
  ended: false, // the service took the token back
})
const token = ref('')
const listeners = new Set<() => void>()

export const session = {
  me: computed(() => state.me),
  token,
  ended: computed(() => state.ended),
  isAdmin: computed(() => state.me?.role === 'admin'),
  grants: computed(() => state.grants),
  /** Port of the WebSocket front; 0 where it is closed. */
  eventsPort: computed(() => state.eventsPort),
}

/** Whether the service has such a path ("/schedules/upcoming"); what it lacks is not shown. */
export const offers = (path: string): boolean => state.paths.has(nameless(path))

// What the parts that differ are called does not matter: "/speakers/{}".
const nameless = (path: string): string => path.replace(/{\w*}/g, '{}')

/** Runs each time somebody has logged in or out. */
export const whenSessionChanges = (handler: () => void): void => void listeners.add(handler)

function use(text: string): void {
  token.value = text
  setToken(text)
  if (text) sessionStorage.setItem(key, text)
  else sessionStorage.removeItem(key)
}

async function begin(me: api.Me): Promise<void> {
  const told = await about()
  state.paths = new Set(told.paths.map(nameless))
  state.eventsPort = told.websocket ?? 0
  state.grants = state.paths.has('/grants') ? await grants() : []
  state.me = me
  state.ended = false
  listeners.forEach((handler) => handler())
}

function end(byService: boolean): void {
  if (!token.value) return
  use('')
  state.me = null
  state.grants = []
  state.ended = byService
  listeners.forEach((handler) => handler())
}

export async function logIn(username: string, password: string): Promise<void> {
  const told = await api.login(username, password)
  use(told.token)
  await begin(told.account)
}

/** Goes on with the token of an earlier load of this tab; false without one that still holds. */
export async function resume(): Promise<boolean> {
  const kept = sessionStorage.getItem(key)
  if (!kept) return false
  use(kept)
  try {
    await begin(await api.me())
    return true
  } catch (error) {
    if (error instanceof Problem && error.status === 401) return false
    throw error
  }
}

export async function logOut(): Promise<void> {
  try {
    await api.logout()
  } finally {
    end(false)
  }
}

export async function rename(name: string): Promise<void> {
  state.me = await api.rename(name)
}

whenTokenIsVoid(() => end(true))

import { all, patch, post, remove, send } from './http'
import type { Targets } from './speakers'

export interface Schedule {
  id: number
  name: string
  enabled: boolean
  time: string // HH:MM:SS
  days: number[] // 1 Monday to 7
  from: string | null // YYYY-MM-DD
  until: string | null
  calendar: number | null
  plan: number | null
  sounds: number[]
  repeat: number
  seconds: number | null
  targets: Targets
  volume: number | null
  priority: number
  missed: { policy: 'ring' | 'skip'; within: number }
  next: string | null
  last: { due: string; state: string } | null
}

export type ScheduleChanges = Partial<Omit<Schedule, 'id' | 'next' | 'last'>>

export interface Ring {
  schedule: number
  due: string
  rings: boolean
  reason: string | null
}

export interface Plan {
  id: number
  name: string
  exceptional: boolean
}

export interface Calendar {
  id: number
  name: string
}

export interface Entry {
  id: number
  name: string
  from: string
  until: string
  plan: number | null
}

export interface Imported {
  added: number
  changed: number
  removed: number
  ignored: { uid: string; reason: string }[]
}

export const schedules = (): Promise<Schedule[]> => all('/schedules')
export const addSchedule = (schedule: ScheduleChanges): Promise<Schedule> => post('/schedules', schedule)
export const changeSchedule = (id: number, changes: ScheduleChanges): Promise<Schedule> => patch(`/schedules/${id}`, changes)
export const removeSchedule = (id: number): Promise<void> => remove(`/schedules/${id}`)
export const startSchedule = (id: number): Promise<unknown> => post(`/schedules/${id}/start`)
export const stopSchedule = (id: number): Promise<unknown> => post(`/schedules/${id}/stop`)
export const upcoming = (from: string, until: string): Promise<Ring[]> => all('/schedules/upcoming', { from, until })

export const plans = (): Promise<Plan[]> => all('/plans')
export const addPlan = (plan: Omit<Plan, 'id'>): Promise<Plan> => post('/plans', plan)
export const changePlan = (id: number, changes: Partial<Plan>): Promise<Plan> => patch(`/plans/${id}`, changes)
export const removePlan = (id: number): Promise<void> => remove(`/plans/${id}`)

export const calendars = (): Promise<Calendar[]> => all('/calendars')
export const addCalendar = (name: string): Promise<Calendar> => post('/calendars', { name })
export const changeCalendar = (id: number, name: string): Promise<Calendar> => patch(`/calendars/${id}`, { name })
export const removeCalendar = (id: number): Promise<void> => remove(`/calendars/${id}`)
export const entries = (calendar: number): Promise<Entry[]> => all(`/calendars/${calendar}/entries`)
export const addEntry = (calendar: number, entry: Omit<Entry, 'id'>): Promise<Entry> =>
  post(`/calendars/${calendar}/entries`, entry)
export const changeEntry = (calendar: number, id: number, changes: Partial<Entry>): Promise<Entry> =>
  patch(`/calendars/${calendar}/entries/${id}`, changes)
export const removeEntry = (calendar: number, id: number): Promise<void> =>
  remove(`/calendars/${calendar}/entries/${id}`)
export const importCalendar = (calendar: number, file: File): Promise<Imported> =>
  post(`/calendars/${calendar}/import`, new Blob([file], { type: 'text/calendar' }), { patience: 60_000 })
export const exportCalendar = async (calendar: number): Promise<Blob> =>
  (await send('GET', `/calendars/${calendar}/export`, { accept: 'text/calendar' })).blob()

/** Where bells stand in the view of a week, and what a move makes of them. */
import type { Schedule, ScheduleChanges } from '@/api/schedules'
import { secondsOf, timeOf } from './days'

export const hourHeight = 56 // px
const bellHeight = 24
const pixelsPerSecond = hourHeight / 3600

export interface Placed {
  schedule: Schedule
  top: number // px from the first hour
  lane: number
  lanes: number // side by side with those that it would cover
}

/** The hours that are shown: all in which something rings, and the working day at least. */
export function shownHours(schedules: Schedule[]): { first: number; last: number } {
  const hours = schedules.map(({ time }) => Math.floor(secondsOf(time) / 3600))
  return { first: Math.min(7, ...hours), last: Math.max(17, ...hours) + 1 }
}

/** The bells of a day, none over another. */
export function place(schedules: Schedule[], firstHour: number): Placed[] {
  const sorted = [...schedules].sort((a, b) => secondsOf(a.time) - secondsOf(b.time) || a.id - b.id)
  const placed: Placed[] = []
  let cluster: Placed[] = []
  let ends: number[] = []
  const close = (): void => {
    for (const bell of cluster) bell.lanes = ends.length
    cluster = []
    ends = []
  }
  for (const schedule of sorted) {
    const top = (secondsOf(schedule.time) - firstHour * 3600) * pixelsPerSecond
    if (ends.every((end) => end <= top)) close()
    const free = ends.findIndex((end) => end <= top)
    const lane = free < 0 ? ends.length : free
    ends[lane] = top + bellHeight
    const bell = { schedule, top, lane, lanes: 1 }
    cluster.push(bell)
    placed.push(bell)
  }
  close()
  return placed
}

const step = 300 // s; bells stand at full five minutes unless they are moved by single ones

/** The time after a move by so many pixels. */
export function movedTime(time: string, pixels: number): string {
  const seconds = secondsOf(time) + pixels / pixelsPerSecond
  return timeOf(Math.min(86_400 - step, Math.round(seconds / step) * step))
}

export const laterBy = (time: string, minutes: number): string => timeOf(secondsOf(time) + minutes * 60)

/** What changes when the bell of one day goes to a time and another day; null: nothing. */
export function moved(schedule: Schedule, from: number, to: number, time: string): ScheduleChanges | null {
  const days = from === to ? schedule.days : [...new Set(schedule.days.map((day) => (day === from ? to : day)))].sort((a, b) => a - b)
  const sameDays = days.join() === schedule.days.join()
  if (sameDays && time === schedule.time) return null
  return { ...(time !== schedule.time && { time }), ...(!sameDays && { days }) }
}

/** Bells whose days change when those of one day shall ring on others too. */
export function copiedDays(schedules: Schedule[], from: number, to: number[], replace: boolean): { schedule: Schedule; days: number[] }[] {
  return schedules.flatMap((schedule) => {
    const rings = schedule.days.includes(from)
    const kept = rings || !replace ? schedule.days : schedule.days.filter((day) => !to.includes(day))
    const days = [...new Set([...kept, ...(rings ? to : [])])].sort((a, b) => a - b)
    return days.join() === schedule.days.join() || !days.length ? [] : [{ schedule, days }]
  })
}

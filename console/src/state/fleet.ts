/** The speakers as the pages need them: counts, order, what may be done with them. */
import { computed } from 'vue'
import type { Group, Health, Speaker, SpeakerState } from '@/api/speakers'
import { speakerTable } from '@/live/feed'
import { groupList } from './groups'
import { session } from './session'

export interface Counts {
  total: number
  online: number
  playing: number
  flaky: number
  silent: number
  offline: number
}

export const counts = computed<Counts>(() => {
  const told = { total: 0, online: 0, playing: 0, flaky: 0, silent: 0, offline: 0 }
  for (const { state, health } of speakerTable.rows.value.values()) {
    told.total++
    if (state === 'offline') told.offline++
    else told.online++
    if (state === 'playing' || state === 'live') told.playing++
    if (health === 'flaky') told.flaky++
    if (health === 'silent') told.silent++
  }
  return told
})

export type StateFilter = '' | SpeakerState | 'online' | Extract<Health, 'flaky' | 'silent'> | 'disabled'
export const stateFilters: StateFilter[] = ['', 'online', 'playing', 'live', 'idle', 'offline', 'flaky', 'silent', 'disabled']

export function passes(speaker: Speaker, filter: StateFilter): boolean {
  switch (filter) {
    case '': return true
    case 'online': return speaker.state !== 'offline'
    case 'playing': return speaker.state === 'playing' || speaker.state === 'live'
    case 'flaky':
    case 'silent': return speaker.health === filter
    case 'disabled': return !speaker.enabled
    default: return speaker.state === filter
  }
}

/** A group and all that it holds, directly or not. */
export function withNested(id: number, groups: Map<number, Group>): Set<number> {
  const found = new Set<number>()
  const open = [id]
  for (let next = open.pop(); next !== undefined; next = open.pop()) {
    if (found.has(next)) continue
    found.add(next)
    open.push(...(groups.get(next)?.groups ?? []))
  }
  return found
}

export const groupsById = computed(() => new Map(groupList.value.map((group) => [group.id, group])))

/** How many speakers each group holds, nested ones too, each once. */
export const groupSizes = computed(() => {
  const sizes = new Map<number, number>()
  const direct = new Map<number, string[]>()
  for (const { serial, groups } of speakerTable.rows.value.values()) {
    for (const id of groups) {
      const members = direct.get(id)
      if (members) members.push(serial)
      else direct.set(id, [serial])
    }
  }
  for (const id of groupsById.value.keys()) {
    const nested = withNested(id, groupsById.value)
    if (nested.size === 1) {
      sizes.set(id, direct.get(id)?.length ?? 0)
      continue
    }
    const members = new Set<string>()
    for (const inner of nested) direct.get(inner)?.forEach((serial) => members.add(serial))
    sizes.set(id, members.size)
  }
  return sizes
})

/** Groups that were given to the account in this role, with all that they hold. */
function granted(role: 'operator' | 'viewer'): Set<number> {
  const found = new Set<number>()
  for (const grant of session.grants.value) {
    if (grant.account !== session.me.value?.id || grant.role !== role) continue
    withNested(grant.group, groupsById.value).forEach((id) => found.add(id))
  }
  return found
}
const operated = computed(() => granted('operator'))
const viewed = computed(() => granted('viewer'))

/** Its name, its place in groups, whether it is there at all. */
export const mayManage = (speaker: Speaker): boolean =>
  session.isAdmin.value || speaker.owner === session.me.value?.id

/** Of those of others the account only looks at what it was given to look at, and at nothing more. */
export const mayPlay = (speaker: Speaker): boolean =>
  mayManage(speaker) ||
  speaker.groups.some((id) => operated.value.has(id)) ||
  !speaker.groups.some((id) => viewed.value.has(id))

export const mayManageGroup = (group: Group): boolean =>
  session.isAdmin.value || group.owner === session.me.value?.id

export const mayPlayGroup = (group: Group): boolean =>
  mayManageGroup(group) || operated.value.has(group.id) || !viewed.value.has(group.id)

/** Whether there is anything that the account may play to; without it no page offers to play. */
export const playsAnything = computed(() => {
  if (session.isAdmin.value) return true
  for (const speaker of speakerTable.rows.value.values()) if (mayPlay(speaker)) return true
  return false
})

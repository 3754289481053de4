/** Targets in words and figures. */
import type { Targets } from '@/api/speakers'
import { speakerTable } from '@/live/feed'
import { groupsById, mayPlay, withNested } from './fleet'

export const noTargets = (): Targets => ({ speakers: [], groups: [] })
export const isNobody = (targets: Targets): boolean =>
  !('all' in targets) && !targets.speakers?.length && !targets.groups?.length

/** The speakers that are meant, each once. */
export function countOf(targets: Targets): number {
  const rows = speakerTable.rows.value
  let count = 0
  if ('all' in targets) {
    for (const speaker of rows.values()) if (mayPlay(speaker)) count++
    return count
  }
  const chosen = new Set(targets.speakers)
  const groups = new Set<number>()
  for (const id of targets.groups ?? []) withNested(id, groupsById.value).forEach((inner) => groups.add(inner))
  if (!groups.size) return chosen.size
  for (const { serial, groups: memberOf } of rows.values()) if (chosen.has(serial) || memberOf.some((id) => groups.has(id))) count++
  return count
}

/** Without the empty lists, as the service is told. */
export function trimmed(targets: Targets): Targets {
  if ('all' in targets) return { all: true }
  return { ...(targets.groups?.length && { groups: targets.groups }), ...(targets.speakers?.length && { speakers: targets.speakers }) }
}

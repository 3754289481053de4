/** Which rows of a list are chosen: one, a range with shift, more with ctrl, all that match. */
import { computed, shallowRef, type ComputedRef, type ShallowRef } from 'vue'

export interface Selection {
  chosen: ShallowRef<Set<string>>
  size: ComputedRef<number>
  isAll: ComputedRef<boolean>
  toggle: (key: string) => void
  /** Everything from the row that was chosen last to this one. */
  extendTo: (key: string) => void
  only: (key: string) => void
  all: () => void
  clear: () => void
}

export function useSelection(keys: () => string[]): Selection {
  const chosen = shallowRef(new Set<string>())
  let anchor = ''

  function toggle(key: string): void {
    const next = new Set(chosen.value)
    if (!next.delete(key)) next.add(key)
    anchor = key
    chosen.value = next
  }
  function extendTo(key: string): void {
    const list = keys()
    const from = list.indexOf(anchor)
    const to = list.indexOf(key)
    if (from < 0 || to < 0) return toggle(key)
    chosen.value = new Set([...chosen.value, ...list.slice(Math.min(from, to), Math.max(from, to) + 1)])
  }
  return {
    chosen,
    size: computed(() => chosen.value.size),
    isAll: computed(() => {
      const list = keys()
      return list.length > 0 && list.length <= chosen.value.size && list.every((key) => chosen.value.has(key))
    }),
    toggle,
    extendTo,
    only: (key) => {
      anchor = key
      chosen.value = new Set([key])
    },
    all: () => void (chosen.value = new Set(keys())),
    clear: () => void (chosen.value = new Set()),
  }
}

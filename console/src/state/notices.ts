/** Short messages at the edge of the page: what was done, with a way back, and what failed. */
import { reactive } from 'vue'

export interface Notice {
  id: number
  kind: 'done' | 'failed'
  text: string
  undo: (() => void) | null
}

const shown = 8_000 // ms; failures stay until they are closed
let last = 0

export const notices = reactive<Notice[]>([])

export const dismiss = (id: number): void => {
  const index = notices.findIndex((notice) => notice.id === id)
  if (index >= 0) notices.splice(index, 1)
}

function add(kind: Notice['kind'], text: string, undo: Notice['undo']): void {
  const same = notices.find((notice) => notice.text === text)
  if (same) dismiss(same.id)
  const id = ++last
  notices.push({ id, kind, text, undo })
  if (notices.length > 4) notices.shift()
  if (kind === 'done') setTimeout(() => dismiss(id), shown)
}

export const done = (text: string, undo: Notice['undo'] = null): void => add('done', text, undo)
export const failed = (text: string): void => add('failed', text, null)

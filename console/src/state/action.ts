/** An order to the service: shows that it runs, and tells in words when it fails. */
import { ref, type Ref } from 'vue'
import { Problem } from '@/api/http'
import { text } from '@/text'
import { failed } from './notices'

/** What went wrong, for people; names the field where the service names it. */
export function wordsOf(error: unknown): string {
  const words = text.value.problems
  if (!(error instanceof Problem)) return error instanceof Error ? error.message : String(error)
  if (error.status === 0) return words.noAnswer
  if (error.status === 403) return error.detail || words.forbidden
  if (error.status === 429 || error.status === 503) return words.later(Math.max(1, error.retryAfter))
  const fields = error.errors.map(({ pointer, detail }) => `${pointer.replace(/^\//, '')}: ${detail}`)
  return fields.join('; ') || error.detail || error.title || words.status(error.status)
}

export interface Action {
  busy: Ref<boolean>
  error: Ref<string>
  /** Runs the order unless one runs already; the result, or undefined after a failure that was told. */
  run: <T>(what: string, order: () => Promise<T>) => Promise<T | undefined>
}

/** With "quiet" the failure stands in `error` only, beside what the user filled in. */
export function useAction(quiet = false): Action {
  const busy = ref(false)
  const error = ref('')
  async function run<T>(what: string, order: () => Promise<T>): Promise<T | undefined> {
    if (busy.value) return undefined
    busy.value = true
    error.value = ''
    try {
      return await order()
    } catch (reason) {
      error.value = `${what}: ${wordsOf(reason)}`
      if (!quiet) failed(error.value)
      return undefined
    } finally {
      busy.value = false
    }
  }
  return { busy, error, run }
}

/** A list that a page reads when it opens and after each change. */
import { ref, shallowRef, type Ref, type ShallowRef } from 'vue'
import { wordsOf } from './action'

export interface Loaded<T> {
  items: ShallowRef<T[] | null> // null until it has been read
  error: Ref<string>
  read: () => Promise<void>
}

export function useLoaded<T>(load: () => Promise<T[]>): Loaded<T> {
  const items = shallowRef<T[] | null>(null)
  const error = ref('')
  async function read(): Promise<void> {
    try {
      items.value = await load()
      error.value = ''
    } catch (reason) {
      error.value = wordsOf(reason)
    }
  }
  void read()
  return { items, error, read }
}

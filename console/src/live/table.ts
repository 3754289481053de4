/** Objects of one topic by their key; a snapshot that replaces others is put in place when it is whole. */
import { shallowRef, triggerRef, type ShallowRef } from 'vue'

export class Table<K, T> {
  /** Watchers run once for each batch of changes. */
  readonly rows: ShallowRef<Map<K, T>> = shallowRef(new Map())
  private pending: Map<K, T> | null = null

  constructor(private readonly keyOf: (item: T) => K) {}

  snapshot(items: T[], more: boolean): void {
    this.pending ??= new Map()
    for (const item of items) this.pending.set(this.keyOf(item), item)
    // Nothing is shown yet: then part of it is better than none.
    const isFirst = this.rows.value.size < this.pending.size
    if (!more || isFirst) this.rows.value = more ? new Map(this.pending) : this.pending
    if (!more) this.pending = null
  }

  change(items: T[]): void {
    for (const item of items) {
      this.rows.value.set(this.keyOf(item), item)
      this.pending?.set(this.keyOf(item), item)
    }
    triggerRef(this.rows)
  }

  gone(keys: K[]): void {
    for (const key of keys) {
      this.rows.value.delete(key)
      this.pending?.delete(key)
    }
    triggerRef(this.rows)
  }

  /** Drops a snapshot that was cut off. */
  forgetPending(): void {
    this.pending = null
  }

  clear(): void {
    this.pending = null
    this.rows.value = new Map()
  }
}

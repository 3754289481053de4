/**
 * Events over WebSocket: a snapshot of each topic, then changes. Reconnects with growing pauses, and
 * begins with a fresh snapshot each time.
 */

export type Topic = 'speakers' | 'broadcasts' | 'journal'

export interface EventHandlers {
  /** Objects of a snapshot; "more" follow until the last part. */
  snapshot: (topic: Topic, items: unknown[], more: boolean) => void
  change: (topic: Topic, items: unknown[]) => void
  gone: (topic: Topic, ids: (string | number)[]) => void
  /** The subscription stands, or the connection was lost and is tried again. */
  connected: (yes: boolean) => void
  /** The service closed the connection because of the token, or refused the topics. */
  refused: () => void
}

const path = '/api/v1/events'
const pauses = [250, 500, 1_000, 2_000, 5_000, 10_000, 30_000] // ms, each up to a third longer
const policyViolation = 1008

interface Told {
  event?: string // none: the front answers, but knows no events
  topic?: Topic
  items?: unknown[]
  ids?: (string | number)[]
  more?: boolean
}

export class Events {
  private socket: WebSocket | null = null
  private attempts = 0
  private timer = 0
  private ended = false
  private isTold = false // this connection has brought something

  constructor(
    private readonly address: string,
    private readonly token: string,
    private readonly topics: Topic[],
    private readonly handlers: EventHandlers,
  ) {
    this.connect()
    addEventListener('online', this.now)
  }

  end(): void {
    this.ended = true
    clearTimeout(this.timer)
    removeEventListener('online', this.now)
    this.socket?.close()
  }

  /** Tries again at once instead of at the end of the pause. */
  readonly now = (): void => {
    if (this.ended || this.socket) return
    clearTimeout(this.timer)
    this.connect()
  }

  /** Takes the connection for lost although nothing has said so. */
  drop(): void {
    const socket = this.socket
    if (!socket) return
    this.lost(socket, 0)
    socket.close()
  }

  private connect(): void {
    const socket = new WebSocket(this.address)
    this.socket = socket
    this.isTold = false
    socket.onopen = () => socket.send(JSON.stringify({ path, token: this.token, topics: this.topics }))
    socket.onmessage = ({ data }) => this.take(socket, data)
    socket.onclose = ({ code }) => this.lost(socket, code)
  }

  private take(socket: WebSocket, data: unknown): void {
    if (socket !== this.socket || typeof data !== 'string') return
    const told: Told = JSON.parse(data)
    if (!told.event || told.event === 'error') {
      this.attempts = pauses.length // no hurry: the answer will be the same
      this.handlers.refused()
      socket.close()
    } else if (told.topic && told.event === 'snapshot') {
      this.attempts = 0
      if (!this.isTold) this.handlers.connected(true)
      this.isTold = true
      this.handlers.snapshot(told.topic, told.items ?? [], told.more === true)
    } else if (told.topic && told.event === 'change') {
      this.handlers.change(told.topic, told.items ?? [])
    } else if (told.topic && told.event === 'gone') {
      this.handlers.gone(told.topic, told.ids ?? [])
    }
  }

  private lost(socket: WebSocket, code: number): void {
    if (socket !== this.socket) return
    this.socket = null
    if (this.ended) return
    this.handlers.connected(false)
    if (code === policyViolation) this.handlers.refused()
    const pause = pauses[Math.min(this.attempts++, pauses.length - 1)] ?? 0
    this.timer = window.setTimeout(this.now, pause * (1 + Math.random() / 3))
  }
}

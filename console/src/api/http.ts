/** The one way to the service: JSON requests with the account's token, and problems in place of errors. */

const base = '/api/v1'
const patience = 20_000 // ms that an answer may take; uploads and speech have their own

export interface FieldError {
  pointer: string
  detail: string
}

/** What the service refused, or status 0: no answer at all. */
export class Problem extends Error {
  constructor(
    readonly status: number,
    readonly title: string,
    readonly detail = '',
    readonly errors: FieldError[] = [],
    readonly retryAfter = 0, // seconds
  ) {
    super(detail || title)
  }
}

export type Query = Record<string, string | number | boolean | null | undefined>

export interface CallOptions {
  query?: Query
  body?: unknown // a Blob goes out as it is, everything else as JSON
  accept?: string
  patience?: number
  signal?: AbortSignal
}

let token = ''
let onVoid = (): void => {}
let onAnswer = (_reached: boolean): void => {}

export const setToken = (value: string): void => void (token = value)
export const currentToken = (): string => token
/** Called when the service no longer takes the token. */
export const whenTokenIsVoid = (handler: () => void): void => void (onVoid = handler)
/** Called after each request with whether the service answered. */
export const whenAnswered = (handler: (reached: boolean) => void): void => void (onAnswer = handler)

// crypto.randomUUID is missing on pages without TLS.
function randomKey(): string {
  return Array.from(crypto.getRandomValues(new Uint8Array(16)), (b) => b.toString(16).padStart(2, '0')).join('')
}

function address(path: string, query: Query = {}): string {
  const given = Object.entries(query).filter(([, value]) => value !== undefined && value !== null && value !== '')
  const text = new URLSearchParams(given.map(([key, value]) => [key, String(value)])).toString()
  return base + path + (text ? '?' + text : '')
}

function headersOf(method: string, path: string, options: CallOptions): Headers {
  const headers = new Headers({ Accept: options.accept ?? 'application/json' })
  if (token) headers.set('Authorization', `Bearer ${token}`)
  const { body } = options
  if (body instanceof Blob) headers.set('Content-Type', body.type || 'application/octet-stream')
  else if (body !== undefined) headers.set('Content-Type', 'application/json')
  const holdsSecrets = path === '/login' || path === '/tokens'
  if (method === 'POST' && !holdsSecrets) headers.set('Idempotency-Key', randomKey())
  return headers
}

async function problemOf(response: Response): Promise<Problem> {
  const retryAfter = Number(response.headers.get('Retry-After')) || 0
  try {
    const told = await response.json()
    return new Problem(response.status, told.title ?? '', told.detail ?? '', told.errors ?? [], retryAfter)
  } catch {
    return new Problem(response.status, response.statusText, '', [], retryAfter)
  }
}

/** The answer, whatever its type; throws a Problem. */
export async function send(method: string, path: string, options: CallOptions = {}): Promise<Response> {
  const timeout = AbortSignal.timeout(options.patience ?? patience)
  const { body } = options
  let response: Response
  try {
    response = await fetch(address(path, options.query), {
      method,
      headers: headersOf(method, path, options),
      body: body instanceof Blob ? body : body === undefined ? null : JSON.stringify(body),
      signal: options.signal ? anyOf(options.signal, timeout) : timeout,
      cache: 'no-store',
      credentials: 'omit',
    })
  } catch (error) {
    if (options.signal?.aborted) throw error
    onAnswer(false)
    throw new Problem(0, 'no answer')
  }
  onAnswer(true)
  if (response.ok) return response
  if (response.status === 401 && token && path !== '/login') onVoid()
  throw await problemOf(response)
}

function anyOf(...signals: AbortSignal[]): AbortSignal {
  const controller = new AbortController()
  for (const signal of signals) {
    if (signal.aborted) controller.abort()
    signal.addEventListener('abort', () => controller.abort(), { once: true })
  }
  return controller.signal
}

async function json<T>(method: string, path: string, options?: CallOptions): Promise<T> {
  const response = await send(method, path, options)
  if (response.status === 204) return undefined as T
  const text = await response.text()
  return (text ? JSON.parse(text) : undefined) as T
}

export const get = <T>(path: string, query?: Query, signal?: AbortSignal): Promise<T> =>
  json('GET', path, { ...(query && { query }), ...(signal && { signal }) })
export const post = <T>(path: string, body: unknown = {}, options: CallOptions = {}): Promise<T> =>
  json('POST', path, { ...options, body })
export const patch = <T>(path: string, body: unknown): Promise<T> => json('PATCH', path, { body })
export const remove = (path: string): Promise<void> => json('DELETE', path)

export interface Page<T> {
  items: T[]
  next: string | null
}

/** The pages of a list, one after the other. */
export async function* pages<T>(path: string, query: Query = {}, signal?: AbortSignal): AsyncGenerator<T[]> {
  let cursor: string | null = null
  do {
    const page: Page<T> = await get(path, { limit: 1000, ...query, cursor }, signal)
    yield page.items
    cursor = page.next
  } while (cursor)
}

export async function all<T>(path: string, query: Query = {}, signal?: AbortSignal): Promise<T[]> {
  const items: T[] = []
  for await (const page of pages<T>(path, query, signal)) items.push(...page)
  return items
}

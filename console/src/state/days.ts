/** Points in time and dates as the service takes them. */
const two = (value: number): string => String(value).padStart(2, '0')

/** RFC 3339 with the browser's own offset. */
export function instant(at: number | Date): string {
  const date = new Date(at)
  const offset = -date.getTimezoneOffset()
  const zone = `${offset < 0 ? '-' : '+'}${two(Math.floor(Math.abs(offset) / 60))}:${two(Math.abs(offset) % 60)}`
  return `${day(date)}T${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}.${String(date.getMilliseconds()).padStart(3, '0')}${zone}`
}

export const day = (date: Date): string => `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`

/** Midnight at which a date begins; "days" later. */
export function midnight(date: string, days = 0): Date {
  const [year = 1970, month = 1, ofMonth = 1] = date.split('-').map(Number)
  return new Date(year, month - 1, ofMonth + days)
}

export const secondsOf = (time: string): number =>
  time.split(':').reduce((sum, part, index) => sum + Number(part) * (3600 / 60 ** index), 0)

export function timeOf(seconds: number): string {
  const whole = Math.max(0, Math.min(86_399, Math.round(seconds)))
  return `${two(Math.floor(whole / 3600))}:${two(Math.floor(whole / 60) % 60)}:${two(whole % 60)}`
}

/** "10:15", or with seconds where there are any. */
export const shortTime = (time: string): string => time.replace(/:00$/, '')

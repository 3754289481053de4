/** The page's texts in the chosen language, and dates and figures as it writes them. */
import { computed, ref, watchEffect } from 'vue'
import { en, type Texts } from './en'
import { zh } from './zh'

export const languages = { en, zh }
export type Language = keyof typeof languages

const key = 'speakerd.language'
const wanted = localStorage.getItem(key) ?? navigator.language.slice(0, 2)
export const language = ref<Language>(wanted === 'zh' ? 'zh' : 'en')
export const text = computed<Texts>(() => languages[language.value])

watchEffect(() => {
  document.documentElement.lang = language.value === 'zh' ? 'zh-Hans' : 'en'
  localStorage.setItem(key, language.value)
})

const formats = computed(() => {
  const { locale } = text.value
  return {
    number: new Intl.NumberFormat(locale),
    moment: new Intl.DateTimeFormat(locale, { month: 'short', day: 'numeric', hour: '2-digit', minute: '2-digit', second: '2-digit' }),
    clock: new Intl.DateTimeFormat(locale, { hour: '2-digit', minute: '2-digit', second: '2-digit' }),
    weekday: new Intl.DateTimeFormat(locale, { weekday: 'short', day: 'numeric', month: 'short', hour: '2-digit', minute: '2-digit' }),
  }
})

const said = (format: Intl.DateTimeFormat, at: string | Date | null | undefined): string => {
  const date = at ? new Date(at) : null
  return date && !Number.isNaN(date.getTime()) ? format.format(date) : '–'
}

export const figure = (value: number): string => formats.value.number.format(value)
export const moment = (at: string | Date | null | undefined): string => said(formats.value.moment, at)
export const clock = (at: string | Date | null | undefined): string => said(formats.value.clock, at)
export const weekday = (at: string | Date | null | undefined): string => said(formats.value.weekday, at)

/** "3:05" of seconds. */
export function length(seconds: number | null): string {
  if (seconds === null) return '–'
  const whole = Math.round(seconds)
  return `${Math.floor(whole / 60)}:${String(whole % 60).padStart(2, '0')}`
}

/** Names of the service's states and kinds; one that this page does not know stands as it is. */
export const stateName = (state: string): string => text.value.states[state] ?? state
export const kindName = (kind: string): string => text.value.kinds[kind] ?? kind

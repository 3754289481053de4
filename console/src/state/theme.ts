/** Light, dark, or as the system has it; kept in this browser. */
import { ref, watchEffect } from 'vue'

export type Theme = 'auto' | 'light' | 'dark'
const key = 'speakerd.theme'
const kept = localStorage.getItem(key)
export const theme = ref<Theme>(kept === 'light' || kept === 'dark' ? kept : 'auto')

watchEffect(() => {
  document.documentElement.dataset.theme = theme.value
  localStorage.setItem(key, theme.value)
})

/** Whom the next announcement is for, when another page has chosen them. */
import { shallowRef } from 'vue'
import type { Targets } from '@/api/speakers'

export const draftTargets = shallowRef<Targets | null>(null)

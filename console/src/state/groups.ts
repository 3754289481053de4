/** The groups that the account sees; read anew when they change here or the page comes back into view. */
import { ref, shallowRef } from 'vue'
import { groups, type Group } from '@/api/speakers'
import { collator } from './collator'
import { offers, session, whenSessionChanges } from './session'

export const groupList = shallowRef<Group[]>([])
export const groupsLoaded = ref(false)

export async function loadGroups(): Promise<void> {
  if (!session.me.value || !offers('/groups')) return
  const told = await groups()
  groupList.value = told.sort((a, b) => collator.compare(a.name, b.name))
  groupsLoaded.value = true
}

whenSessionChanges(() => {
  groupList.value = []
  groupsLoaded.value = false
  void loadGroups().catch(() => {})
})
addEventListener('focus', () => void loadGroups().catch(() => {}))

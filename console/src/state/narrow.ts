/** Whether the page is narrow: rows then take two lines instead of columns. */
import { ref } from 'vue'

const query = matchMedia('(max-width: 760px)')
export const isNarrow = ref(query.matches)
query.addEventListener('change', ({ matches }) => (isNarrow.value = matches))

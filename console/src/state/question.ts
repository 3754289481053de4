/** The one dialog that asks before what can't be taken back. */
import { reactive } from 'vue'

interface Question {
  title: string
  text: string
  yes: string
  answer: (yes: boolean) => void
}

export const asked = reactive<{ question: Question | null }>({ question: null })

export function ask(title: string, text: string, yes: string): Promise<boolean> {
  asked.question?.answer(false)
  return new Promise((resolve) => {
    asked.question = {
      title,
      text,
      yes,
      answer: (given) => {
        asked.question = null
        resolve(given)
      },
    }
  })
}

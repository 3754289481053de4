/** Debian's Chromium with the console in it. */
import { readFileSync } from 'node:fs'
import { createRequire } from 'node:module'
import { chromium } from 'playwright-core'
import { password } from './service.mjs'

const axe = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8')
const switches = ['--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking', '--disable-component-update', '--disable-sync']

export const launch = () =>
  chromium.launch({ executablePath: '/usr/bin/chromium', args: process.getuid() === 0 ? ['--no-sandbox', ...switches] : switches })

/** A page of its own session; what it reports as an error is kept in "errors". */
export async function open(browser, service, options = {}) {
  const context = await browser.newContext({ viewport: { width: 1280, height: 800 }, locale: 'en-GB', ...options })
  const page = await context.newPage()
  page.setDefaultTimeout(20_000)
  page.errors = []
  page.on('pageerror', (error) => page.errors.push(error.message))
  await page.goto(service.console)
  return page
}

export async function logIn(page, username = 'admin', secret = password) {
  await page.fill('[name=username]', username)
  await page.fill('[name=password]', secret)
  await page.keyboard.press('Enter')
  await page.waitForSelector('#main-menu', { state: 'attached' })
}

export const goTo = (page, path) => page.evaluate((to) => void (location.hash = to), path)

/** What axe finds, one line each; and whether the page is wider than the window. */
export async function faults(page) {
  await page.evaluate(axe)
  return page.evaluate(async () => {
    const { violations } = await window.axe.run({ runOnly: ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa', 'wcag22aa', 'best-practice'] })
    const told = violations.flatMap(({ id, nodes }) => nodes.map(({ html }) => `${id}: ${html.slice(0, 150)}`))
    const over = document.documentElement.scrollWidth - innerWidth
    return over > 0 ? [...told, `wider than the window by ${over}`] : told
  })
}

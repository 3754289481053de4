/** The console in a browser against the real service and simulated speakers. */
import assert from 'node:assert/strict'
import { after, afterEach, before, test } from 'node:test'
import { faults, goTo, launch, logIn, open } from './browser.mjs'
import { Service, serialAt, until } from './service.mjs'

const fleet = 50
let service, browser, token
const pages = []

before(async () => {
  service = await Service.make()
  await service.speakers(fleet)
  token = await service.token('admin')
  browser = await launch()
})
after(async () => {
  await browser?.close()
  await service?.end()
})
afterEach(async () => {
  for (const page of pages.splice(0)) {
    assert.deepEqual(page.errors, [])
    await page.context().close()
  }
})

async function visit(username, secret, options) {
  const page = await open(browser, service, options)
  pages.push(page)
  if (username) await logIn(page, username, secret)
  return page
}
const rows = (page) => page.locator('[role=row][data-index]')
const shown = (page, text) => page.getByText(text, { exact: true }).first().waitFor()
const speakers = async () => (await service.call(token, 'GET', '/speakers?limit=1000')).items

test('every page is accessible, in both colours and widths', async () => {
  await service.call(token, 'POST', '/groups', { name: 'Building', speakers: [serialAt(0)] })
  for (const [colorScheme, width] of [['light', 1280], ['dark', 1280], ['light', 360], ['dark', 360]]) {
    const page = await visit(null, null, { colorScheme, viewport: { width, height: 780 } })
    await page.waitForSelector('[name=username]')
    assert.deepEqual(await faults(page), [], 'log in')
    await logIn(page)
    const menu = await page.locator('#main-menu a').evaluateAll((links) => links.map((link) => link.getAttribute('href').slice(1)))
    assert.ok(menu.length > 3)
    for (const path of [...menu, `/speakers/${serialAt(0)}`, ...['day', 'calendars', 'plans'].map((part) => `/schedule/${part}`), ...['list', 'tokens', 'grants', 'audit'].map((part) => `/accounts/${part}`)]) {
      await goTo(page, path)
      await page.waitForLoadState('networkidle')
      assert.deepEqual(await faults(page), [], `${path}, ${colorScheme}, ${width}`)
    }
  }
})

test('a wrong password is told; the right one opens the overview', async () => {
  const page = await visit()
  await page.fill('[name=username]', 'admin')
  await page.fill('[name=password]', 'not that one')
  await page.keyboard.press('Enter')
  await page.getByRole('alert').waitFor()
  await logIn(page)
  await page.locator('.figures strong').filter({ hasText: String(fleet) }).first().waitFor()
  await page.reload() // stays logged in
  await page.waitForSelector('#main-menu', { state: 'attached' })
})

test('speakers are found, chosen by keyboard, grouped and made louder', async () => {
  const page = await visit('admin')
  await goTo(page, '/speakers?q=Room+1')
  await until('eleven rows', async () => (await page.locator('[role=grid]').getAttribute('aria-rowcount')) === '12')
  assert.deepEqual(await rows(page).locator('.name').allInnerTexts(), ['Room 1', ...Array.from({ length: 10 }, (_, i) => `Room ${10 + i}`)])
  await rows(page).first().focus()
  await page.keyboard.press(' ')
  await page.keyboard.press('Shift+ArrowDown')
  await shown(page, '2 selected')
  await page.keyboard.press('Control+a')
  await shown(page, '11 selected')
  await page.getByRole('button', { name: 'Put into a group' }).click()
  await page.getByLabel('Name of the new group').fill('Wing "A"')
  await page.keyboard.press('Enter')
  await shown(page, '11 speakers put into “Wing "A"”.')
  await page.getByRole('button', { name: 'Set volume' }).click()
  await page.getByRole('slider').fill('21')
  await page.getByRole('dialog').getByRole('button', { name: 'Set volume' }).click()
  await shown(page, 'Volume set on 11 speakers.')
  await until('the volume on the speakers', async () => (await speakers()).filter(({ volume }) => volume === 21).length === 11)
})

test('two browsers see each other’s changes', async () => {
  const [one, two] = [await visit('admin'), await visit('admin')]
  for (const page of [one, two]) await goTo(page, `/speakers/${serialAt(2)}`)
  await one.getByLabel('Name', { exact: true }).fill('Entrance')
  await one.keyboard.press('Enter')
  await two.getByRole('heading', { name: 'Entrance' }).waitFor()
  await one.getByRole('button', { name: 'Undo' }).click()
  await two.getByRole('heading', { name: 'Room 3' }).waitFor()
})

test('without the service the page says so, keeps what it shows, and comes back by itself', async () => {
  const page = await visit('admin')
  await goTo(page, '/speakers')
  await until('rows', async () => (await rows(page).count()) > 5)
  await service.kill()
  await page.getByText('No connection to the service').waitFor()
  assert.ok((await rows(page).count()) > 5)
  await service.start()
  await page.getByText('No connection to the service').waitFor({ state: 'detached' })
  await page.context().setOffline(true)
  await page.getByText('No connection to the service').waitFor()
  await page.context().setOffline(false)
  await page.getByText('No connection to the service').waitFor({ state: 'detached' })
  await until('the speakers again', async () => (await speakers()).every(({ state }) => state !== 'offline'))
})

test('a viewer sees no button that he may not use', async () => {
  const group = await service.call(token, 'POST', '/groups', { name: 'Seen', speakers: [serialAt(4), serialAt(5)] })
  const viewer = await service.call(token, 'POST', '/accounts', { username: 'viewer', password: 'only looking', name: 'Viewer', role: 'owner' })
  await service.call(token, 'POST', '/grants', { account: viewer.id, group: group.id, role: 'viewer' })
  const page = await visit('viewer', 'only looking')
  await goTo(page, '/speakers')
  await until('two rows', async () => (await rows(page).count()) === 2)
  await rows(page).first().click()
  const forbidden = /Announce|Stop|Set volume|Put into|Remove|Save|Keep it silent/
  assert.equal(await page.getByRole('button', { name: forbidden }).count() + await page.getByRole('link', { name: 'Announce' }).count(), 0)
  for (const path of [`/speakers/${serialAt(4)}`, `/groups/${group.id}`]) {
    await goTo(page, path)
    await page.getByRole('heading', { name: /Room 5|Seen/ }).first().waitFor()
    assert.equal(await page.getByRole('button', { name: forbidden }).count(), 0, path)
    assert.equal(await page.getByRole('slider').count(), 0, path)
  }
})

test('an announcement to the whole fleet is heard, and told speaker by speaker', async () => {
  const page = await visit('admin')
  await goTo(page, '/announce')
  await page.getByLabel('All speakers').check()
  await page.getByRole('textbox', { name: 'Text to speak' }).fill('Attention please. This is a test of the public address system. '.repeat(20))
  await page.getByRole('button', { name: 'More settings' }).or(page.getByText('More settings')).click()
  await page.getByLabel('Name in the journal').fill('Fire drill')
  await page.getByRole('button', { name: `Announce to ${fleet} speakers` }).click()
  await page.getByText(`${fleet} of ${fleet} speakers play or have played it`).waitFor()
  await page.getByRole('table', { name: 'Receipt' }).getByText('Room 1', { exact: true }).waitFor()
  const first = page.url().match(/\d+$/)[0]

  await goTo(page, '/')
  await page.locator('.figures .play strong').filter({ hasText: String(fleet) }).waitFor()
  await page.getByRole('link', { name: 'Fire drill' }).waitFor()
  if (process.env.CONSOLE_PICTURE) await page.screenshot({ path: process.env.CONSOLE_PICTURE })
  await page.getByRole('button', { name: 'Stop everything' }).click() // one click, and one to be sure
  await page.getByRole('button', { name: 'Stop now' }).click()
  await shown(page, '1 broadcast stopped.')
  await until('silence', async () => (await speakers()).every(({ state }) => state === 'idle'))
  assert.equal((await service.call(token, 'GET', `/broadcasts/${first}`)).state, 'stopped')

  await goTo(page, `/broadcasts/${first}`)
  await page.getByRole('button', { name: 'Again' }).click()
  await until('another broadcast', () => !page.url().endsWith(first))
  await page.getByRole('button', { name: 'Stop Fire drill' }).click()
  await until('its end', async () => (await service.call(token, 'GET', `/broadcasts/${page.url().match(/\d+$/)[0]}`)).state === 'stopped')
})

test('a bell is moved and rings at its new time; a calendar silences its day', async () => {
  const sound = (await service.call(token, 'POST', '/sounds/speech', { text: 'ding', name: 'Bell' })).id
  const add = (more) => service.call(token, 'POST', '/schedules', { time: '12:00:00', days: [1, 2, 3, 4, 5], sounds: [sound], targets: { all: true }, ...more })
  const lunch = await add({ name: 'Lunch' })
  const page = await visit('admin')
  await goTo(page, '/schedule')
  const monday = page.locator(`[data-day="1"] [data-bell="${lunch.id}"]`)
  const box = await monday.boundingBox()
  await page.mouse.move(box.x + 10, box.y + 5)
  await page.mouse.down()
  await page.mouse.move(box.x + 10, box.y + 5 + 28, { steps: 4 }) // half an hour
  await page.mouse.up()
  await page.getByText('“Lunch” now rings at 12:30').waitFor()
  assert.equal((await service.call(token, 'GET', `/schedules/${lunch.id}`)).time, '12:30:00')
  await page.getByRole('button', { name: 'Undo' }).click()
  await until('the old time', async () => (await service.call(token, 'GET', `/schedules/${lunch.id}`)).time === '12:00:00')

  const soon = await add({ name: 'Soon', days: [1, 2, 3, 4, 5, 6, 7] })
  await page.reload()
  await page.locator(`[data-bell="${soon.id}"]`).first().focus()
  await page.keyboard.press('Enter')
  const inFive = new Date(Date.now() + 6_000)
  await page.getByRole('dialog').locator('input[type=time]').fill(inFive.toTimeString().slice(0, 8))
  await page.getByRole('button', { name: 'Save' }).click()
  await shown(page, '“Soon” saved.')
  await until('the bell', async () => (await service.call(token, 'GET', '/journal?kind=bell')).items.some(({ schedule, state }) => schedule === soon.id && state === 'played'))

  await goTo(page, '/schedule/calendars')
  await page.getByRole('button', { name: 'New calendar' }).click()
  await page.getByRole('dialog').getByLabel('Name').fill('School year')
  await page.keyboard.press('Enter')
  const file = ['BEGIN:VCALENDAR', 'VERSION:2.0', 'PRODID:-//test//EN', 'BEGIN:VEVENT', 'UID:christmas@test', 'DTSTAMP:20260101T000000Z', 'DTSTART;VALUE=DATE:20301224', 'DTEND;VALUE=DATE:20301227', 'SUMMARY:Christmas', 'END:VEVENT', 'END:VCALENDAR', ''].join('\r\n')
  await page.locator('input[type=file]').setInputFiles({ name: 'year.ics', mimeType: 'text/calendar', buffer: Buffer.from(file) })
  await shown(page, '1 added, 0 changed, 0 removed.')
  const calendar = (await service.call(token, 'GET', '/calendars')).items[0].id
  for (const { id } of [lunch, soon]) await service.call(token, 'PATCH', `/schedules/${id}`, { calendar })
  await goTo(page, '/schedule/day')
  await page.locator('input[type=date]').fill('2030-12-24')
  await page.locator('.silent', { hasText: 'Lunch' }).filter({ hasText: 'Christmas' }).or(page.locator('.silent', { hasText: 'Lunch' }).filter({ hasText: 'School year' })).waitFor()
})

/**
 * How the console feels with a large fleet: the real service, simulated speakers, Chromium.
 * usage: node bench/console.mjs [SPEAKERS (19500)] [MINUTES of changes for the memory (1)]
 * SPEAKERD_BIN names the directory of the binaries (default build/release).
 */
import { execFileSync } from 'node:child_process'
import { launch, logIn, open } from '../console/tests/browser.mjs'
import { Service, serialAt, until } from '../console/tests/service.mjs'

const count = Number(process.argv[2] ?? 19_500)
const minutes = Number(process.argv[3] ?? 1)
const changed = Math.min(2_000, count)
const told = (name, value) => console.log(name.padEnd(52), value)

const service = await Service.make()
const browser = await launch()
try {
  const values = Array.from({ length: count }, (_, i) => `(1, 'Room ${i + 1}', '${serialAt(i)}', 1)`).join(',\n')
  await service.kill('SIGTERM')
  execFileSync('sqlite3', ['-bail', '.Elvor.db'], { cwd: service.directory, input: `INSERT INTO sbox_device_info (user_id, device_name, device_seed, node_id) VALUES ${values};` })
  await service.start()
  await service.connect(count)

  const page = await open(browser, service)
  await page.evaluate(() => {
    window.long = []
    new PerformanceObserver((list) => window.long.push(...list.getEntries().map(({ duration }) => duration))).observe({ type: 'longtask', buffered: true })
  })
  told('first paint, ms', Math.round(await page.evaluate(() => performance.getEntriesByName('first-contentful-paint')[0].startTime)))
  told('bytes on the wire until the login page', await page.evaluate(() => [...performance.getEntriesByType('resource'), ...performance.getEntriesByType('navigation')].reduce((sum, { transferSize }) => sum + transferSize, 0)))
  await page.evaluate(() => void (location.hash = '/speakers'))
  const began = Date.now()
  await logIn(page)
  await page.waitForSelector('[role=row][data-index]')
  told('log in to the first rows, ms', Date.now() - began)
  const all = () => page.evaluate(() => Number(document.querySelector('[role=grid]').getAttribute('aria-rowcount')) - 1)
  await until('all rows', async () => (await all()) === count)
  told('log in to all rows, ms', Date.now() - began)
  told('blocking time since (long tasks over 50 ms), ms', Math.round(await page.evaluate(() => window.long.reduce((sum, duration) => sum + duration - 50, 0))))
  told('rows in the page', await page.locator('[role=row]').count())

  /** Times between frames while something happens, ms. */
  const frames = (ms, scrolls) => page.evaluate(async ([span, moves]) => {
    const box = document.querySelector('.scroller')
    const times = []
    let last = performance.now()
    const end = last + span
    await new Promise((done) => {
      const tick = (now) => {
        times.push(now - last)
        last = now
        if (moves) box.scrollTop += 400
        if (now < end) requestAnimationFrame(tick)
        else done()
      }
      requestAnimationFrame(tick)
    })
    times.sort((a, b) => a - b)
    return `median ${times[times.length >> 1].toFixed(1)}, 99 % ${times[Math.floor(times.length * 0.99)].toFixed(1)}, longest ${times.at(-1).toFixed(1)}`
  }, [ms, scrolls])
  told('frames while scrolling, ms', await frames(5_000, true))

  const token = await service.token('admin')
  const change = (volume) => service.call(token, 'POST', '/speakers/volume', { targets: { speakers: Array.from({ length: changed }, (_, i) => serialAt(i)) }, volume })
  const watched = frames(15_000, false)
  await change(7)
  told(`frames while ${changed} speakers change, ms`, await watched)

  const session = await page.context().newCDPSession(page)
  const heap = async () => {
    await session.send('HeapProfiler.collectGarbage')
    return ((await session.send('Runtime.getHeapUsage')).usedSize / 2 ** 20).toFixed(1)
  }
  const before = await heap()
  for (let i = 0, end = Date.now() + minutes * 60_000; Date.now() < end; i++) {
    await change(5 + (i % 20))
    await new Promise((resolve) => setTimeout(resolve, 2_000))
  }
  told(`memory before and after ${minutes} min of changes, MB`, `${before}, ${await heap()}`)
  if (page.errors.length) throw new Error(page.errors.join('\n'))
} finally {
  await browser.close()
  await service.end()
}

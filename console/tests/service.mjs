/** The real service and simulated speakers, in a directory of their own. */
import { spawn, execFileSync } from 'node:child_process'
import { cpSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs'
import { createServer } from 'node:net'
import { tmpdir } from 'node:os'
import { join } from 'node:path'
import { fileURLToPath } from 'node:url'

const root = fileURLToPath(new URL('../..', import.meta.url))
const binaries = process.env.SPEAKERD_BIN ?? join(root, 'build/release')
export const password = 'correct horse 1'
export const firstSerial = '5eed0000000000000000000000000001'
export const serialAt = (index) => firstSerial.slice(0, 24) + (parseInt(firstSerial.slice(24), 16) + index).toString(16).padStart(8, '0')

/** Until it is true; the error names what was waited for. */
export async function until(what, isTrue, deadline = 30_000) {
  for (const end = Date.now() + deadline; ; await new Promise((resolve) => setTimeout(resolve, 50))) {
    const value = await isTrue()
    if (value) return value
    if (Date.now() > end) throw new Error(`waited in vain for ${what}`)
  }
}

async function freePorts(count) { // each with the one two above it
  const held = []
  const listen = (port) => new Promise((resolve, reject) => {
    const server = createServer().once('error', reject).listen(port, '127.0.0.1', () => resolve(server))
  })
  const ports = []
  while (ports.length < count) {
    const server = await listen(0)
    const { port } = server.address()
    const second = await listen(port + 2).catch(() => null)
    held.push(server, ...(second ? [second] : []))
    if (second) ports.push(port)
  }
  await Promise.all(held.map((server) => new Promise((resolve) => server.close(resolve))))
  return ports
}

export class Service {
  constructor(directory, ports) {
    Object.assign(this, { directory, ports, process: null, fleet: null, log: '' })
    this.base = `http://127.0.0.1:${ports.http}`
    this.console = `${this.base}/console/`
  }

  static async make() {
    const [device, second, ps1, ps2, http, web] = await freePorts(6)
    const directory = mkdtempSync(join(tmpdir(), 'speakerd-console-'))
    const service = new Service(directory, { device, http })
    mkdirSync(join(directory, 'etc/docroot/mp3'), { recursive: true })
    mkdirSync(join(directory, 'waring'))
    cpSync(join(root, 'docroot'), join(directory, 'etc/docroot'), { recursive: true })
    writeFileSync(join(directory, 'config.ini'), `[Settings]
LocalIP=127.0.0.1
DPort=${device}
DataPortBack3=${second}
PS1=${ps1}
PS2=${ps2}
wbport=${web}
dbk=3
hardened=true
relaypause=0
taskstart=0
taskend=86400
runingdir=.
programdir=${join(root, 'programs')}
waringdir=${join(directory, 'waring')}
preurl=${service.base}/
[listener]
port=${http}
maxMultiPartSize=134217728
[docroot]
path=etc/docroot
`)
    const schema = readFileSync(join(root, 'core/schema/sqlite3main.sql'))
    execFileSync('sqlite3', ['-bail', '.Elvor.db'], { cwd: directory, input: schema })
    execFileSync(join(binaries, 'speakerd'), ['--adduser', 'admin', '--admin', 'config.ini'], { cwd: directory, input: password + '\n' })
    await service.start()
    return service
  }

  async start() {
    this.log = ''
    this.process = spawn(join(binaries, 'speakerd'), ['config.ini'], { cwd: this.directory, stdio: ['ignore', 'pipe', 'pipe'] })
    for (const stream of [this.process.stdout, this.process.stderr]) stream.on('data', (data) => (this.log += data))
    await until('the service', () => this.log.includes('speakerd ready'))
  }

  kill(signal = 'SIGKILL') {
    const ended = new Promise((resolve) => this.process.once('exit', resolve))
    this.process.kill(signal)
    return ended
  }

  /** Speakers that belong to the administrator and are online. */
  async speakers(count, ...more) {
    const token = await this.token('admin')
    for (let i = 0; i < count; i++) await this.call(token, 'POST', '/speakers', { serial: serialAt(i), name: `Room ${i + 1}` })
    await this.connect(count, ...more)
  }

  /** Simulated speakers come online. */
  async connect(count, ...more) {
    this.fleet = spawn(join(binaries, 'speaker-sim'), ['--count', String(count), '--first-sn', firstSerial, '--server', `127.0.0.1:${this.ports.device}`, ...more], { stdio: ['pipe', 'pipe', 'inherit'] })
    let told = ''
    this.fleet.stdout.on('data', (data) => (told += data))
    await until('the speakers', () => told.includes(`all ${count} speakers online`), 120_000)
  }

  async token(username, secret = password) {
    return (await this.call('', 'POST', '/login', { username, password: secret })).token
  }

  /** A request of the interface; throws what it refuses. */
  async call(token, method, path, body) {
    const response = await fetch(`${this.base}/api/v1${path}`, {
      method,
      headers: { ...(token && { Authorization: `Bearer ${token}` }), ...(body && { 'Content-Type': 'application/json' }) },
      ...(body && { body: JSON.stringify(body) }),
    })
    const text = await response.text()
    if (!response.ok) throw new Error(`${method} ${path}: ${response.status} ${text}`)
    return text ? JSON.parse(text) : null
  }

  async end() {
    this.fleet?.kill()
    if (this.process.exitCode === null && this.process.signalCode === null) await this.kill('SIGTERM')
    rmSync(this.directory, { recursive: true, force: true })
  }
}

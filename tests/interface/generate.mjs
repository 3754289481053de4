// Sends requests made from docs/openapi.json to a running service and holds every answer against the document.
// usage: node generate.mjs --document openapi.json --url http://127.0.0.1:PORT/api/v1 --token TOKEN [--token TOKEN ...]
//                          [--count 1000] [--seed N] [--pid PID]
//   --token  first an administrator's, who sees everything
//   --pid  the service's process: what it keeps in memory must not grow once it is warm
import { readFileSync } from 'node:fs';
import http from 'node:http';
import { parseArgs } from 'node:util';
import fc from 'fast-check';
import { Document } from './document.mjs';
import { Values } from './values.mjs';

const { values: options } = parseArgs({
  options: {
    document: { type: 'string' }, url: { type: 'string' }, token: { type: 'string', multiple: true }, pid: { type: 'string' },
    count: { type: 'string', default: '1000' }, seed: { type: 'string', default: '1' },
  },
});
const Problem = 'application/problem+json';
const Lanes = 4; // requests at once
const Rounds = 4; // each operation's turns: the objects that one round makes the next one names
const MostGrowth = 24 * 1024; // kB from the first round's end to the last one's
const document = new Document(options.document);
const values = new Values(document);
const base = new URL(options.url);
const agent = new http.Agent({ keepAlive: true, maxSockets: Lanes });
const counts = {}; // by status
const done = new Set(); // operations that have succeeded
let sent = 0;

function send({ method, target, token, body, headers = {} }) {
  return new Promise((done, fail) => {
    const bytes = body ? Buffer.from(body.text) : undefined;
    const all = { ...headers, ...(token && { Authorization: `Bearer ${token}` }), ...(body && { 'Content-Type': body.type, 'Content-Length': bytes.length }) };
    const request = http.request({ host: base.hostname, port: base.port, path: base.pathname + target, method, agent, headers: all, timeout: 60_000 }, (answer) => {
      const parts = [];
      answer.on('data', (part) => parts.push(part));
      answer.on('error', fail);
      answer.on('end', () => done({ status: answer.statusCode, headers: answer.headers, text: Buffer.concat(parts).toString() }));
    });
    request.on('timeout', () => request.destroy(new Error('no answer within a minute')));
    request.on('error', fail);
    request.end(bytes);
  });
}

/** What is wrong with an answer; empty: nothing. */
function faultsOf(operation, request, answer) {
  const { status, headers, text } = answer;
  const told = operation.responses[status];
  if (status >= 500) return `status ${status}`;
  if (!told) return `status ${status} is not in the document`;
  if (status === 204) return text === '' ? '' : 'a 204 with content';
  const type = (headers['content-type'] ?? '').split(';')[0];
  const media = told.content?.[type];
  if (status >= 400 && type !== Problem) return `a refusal of type "${type}"`;
  if (!media) return `type "${type}" is not in the document`;
  const value = type.includes('json') ? JSON.parse(text) : text;
  const wrong = document.faultsOf(media.schema, value);
  if (wrong) return `its content does not fit: ${wrong}`;
  if (status >= 400 && value.status !== status) return `the problem tells status ${value.status}`;
  if (status === 401 && headers['www-authenticate'] !== 'Bearer') return 'a 401 without WWW-Authenticate';
  if ((status === 429 || status === 503) && !(Number(headers['retry-after']) > 0)) return `a ${status} without Retry-After`;
  if (status === 201 && !headers.location?.startsWith('/api/v1/')) return 'a 201 without Location';
  return status < 300 ? takenWrongly(operation, request) : '';
}

/** Whether something was done that the document does not allow. */
function takenWrongly(operation, { body, token }) {
  if (!operation.isOpen && !options.token.includes(token) && !token?.startsWith(Spare)) return 'done without a token';
  const schema = operation.body?.content['application/json']?.schema;
  if (!schema) return '';
  const wrong = document.faultsOf(schema, JSON.parse(body.text.replace(/^\ufeff/, '')));
  return wrong ? `done though the body does not fit: ${wrong}` : '';
}

function learn(operation, answer) {
  if (answer.status >= 300 || !answer.headers['content-type']?.includes('json')) return;
  const told = JSON.parse(answer.text);
  const parts = operation.path.split('/').filter((part) => part && !part.startsWith('{'));
  for (const object of told.items ?? [told]) {
    const id = parts.at(-1) === 'speakers' ? object.serial : object.id;
    if (id !== undefined) values.remember(parts.at(-1), id);
  }
}

// The accounts that the requests are made by stay as they are.
const Spare = 'spare ';
let own = [];
const spares = (operation, target) => operation.path === '/accounts/{id}' && operation.method !== 'GET' &&
  own.some((id) => new RegExp(`^/accounts/0*${id}([?]|$)`).test(target));

const Keys = fc.constantFrom('a', 'b', 'c'.repeat(100), 'd e', 'f'.repeat(101));
function requests(operation) {
  const token = fc.oneof({ weight: 12, arbitrary: fc.constantFrom(...options.token) }, { weight: 1, arbitrary: fc.constantFrom(undefined, 'x', 'y'.repeat(500)) });
  const key = operation.method === 'POST' ? fc.oneof({ weight: 9, arbitrary: fc.constant(undefined) }, { weight: 1, arbitrary: Keys }) : fc.constant(undefined);
  const body = operation.body ? values.body(operation.body.content) : fc.constant(undefined);
  return fc.record({ target: values.target(operation), token, body, key })
    .map(({ key: name, ...rest }) => ({ ...rest, method: operation.method, headers: name ? { 'Idempotency-Key': name } : {} }));
}

/** A token that may end: /logout ends the one it is called with. */
async function passing(operation, request) {
  if (operation.path !== '/logout' || !options.token.includes(request.token)) return request;
  const made = await send({ method: 'POST', target: '/tokens', token: request.token, body: { text: '{"name":"to end"}', type: 'application/json' } });
  return { ...request, token: JSON.parse(made.text).token, isSpare: true };
}

async function runOne(operation, request) {
  if (spares(operation, request.target)) return;
  const passed = await passing(operation, request);
  const answer = await send(passed);
  sent += 1;
  const place = `${answer.status}`;
  counts[place] = (counts[place] ?? 0) + 1;
  if (answer.status < 300) done.add(operation.name);
  learn(operation, answer);
  if ((answer.status === 404 && request.token === options.token[0]) || (answer.status === 204 && operation.method === 'DELETE')) values.forget(passed.target);
  const wrong = faultsOf(operation, passed.isSpare ? { ...passed, token: Spare } : passed, answer);
  if (wrong) throw new Error(`${wrong}\n  answer: ${answer.status} ${answer.text.slice(0, 500)}`);
}

const memory = () => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${options.pid}/status`, 'utf8'))[1]);

const faults = [];
const failed = new Set();
async function turn(operation, runs, seed) {
  if (failed.has(operation.name)) return;
  const result = await fc.check(fc.asyncProperty(requests(operation), (request) => runOne(operation, request)),
    { numRuns: runs, seed, endOnFailure: true });
  if (!result.failed) return;
  failed.add(operation.name);
  const { body, ...request } = result.counterexample[0];
  faults.push(`${operation.name}: ${result.errorInstance?.message ?? result.error}\n  request: ${JSON.stringify(request)} ${body ? `${body.type} ${JSON.stringify(body.text.slice(0, 500))}` : ''}\n  --seed ${options.seed}`);
}

for (const token of options.token) own.push(JSON.parse((await send({ method: 'GET', target: '/me', token })).text).id);
// What is made first is there for the others; little of it is deleted.
const Order = ['POST', 'GET', 'PATCH', 'DELETE'];
const operations = document.operations().sort((a, b) => Order.indexOf(a.method) - Order.indexOf(b.method));
const shares = operations.map(({ method }) => (method === 'DELETE' ? 0.25 : 1));
const runs = Number(options.count) / Rounds / shares.reduce((sum, share) => sum + share);
const sizes = [];
for (let round = 0; round < Rounds; ++round) {
  const waiting = [...operations.entries()];
  const lane = async () => {
    for (let next = waiting.shift(); next; next = waiting.shift()) await turn(next[1], Math.ceil(runs * shares[next[0]]), Number(options.seed) * 1000 + round * 100 + next[0]);
  };
  await Promise.all(Array.from({ length: Lanes }, lane));
  if (options.pid) sizes.push(memory());
}
agent.destroy();
console.log(`${sent} requests to ${operations.length} operations: ${Object.entries(counts).map(([status, n]) => `${status} ${n}x`).join(', ')}` +
  (options.pid ? `; resident kB after each round: ${sizes.join(', ')}` : ''));
if (options.pid && sizes.at(-1) - sizes[0] > MostGrowth) faults.push(`the service grew by ${sizes.at(-1) - sizes[0]} kB`);
const idle = operations.filter((operation) => !done.has(operation.name)).map((operation) => operation.name);
if (idle.length) console.log(`never done: ${idle.join(', ')}`);
if (faults.length) {
  console.error(faults.join('\n\n'));
  process.exit(1);
}

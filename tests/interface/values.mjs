// Values for the interface v1's requests, made from the schemas of its document: such that fit, and such that do not.
import fc from 'fast-check';

const Junk = fc.oneof(
  fc.constantFrom(null, true, false, 0, -1, 0.5, 26, 256, 1e9, 2 ** 31, 2 ** 53, -(2 ** 63), 1e300, '', ' ', 'x', '0', "'", '"', '\\',
    "x' OR '1'='1", '%s%n', '@id', '\u0000', '\n', '\u202e', 'ä😀', '../../etc/passwd', 'null', '2026-02-30', '24:00:00',
    [], [null], [[]], {}, { '': '' }, { all: true }, { all: false }),
  fc.string({ unit: 'binary', maxLength: 300 }),
  fc.constant('x'.repeat(5000)),
  fc.array(fc.constantFrom(1, 'x', null), { maxLength: 5 }),
  fc.constant(Array.from({ length: 1500 }, (_, i) => i)),
);

/** A tenth of a second of silence, as a WAV file. */
const Tone = (() => {
  const bytes = Buffer.alloc(44 + 1600);
  bytes.write('RIFF'); bytes.writeUInt32LE(36 + 1600, 4); bytes.write('WAVEfmt ', 8); bytes.writeUInt32LE(16, 16);
  bytes.writeUInt16LE(1, 20); bytes.writeUInt16LE(1, 22); bytes.writeUInt32LE(8000, 24); bytes.writeUInt32LE(16000, 28);
  bytes.writeUInt16LE(2, 32); bytes.writeUInt16LE(16, 34); bytes.write('data', 36); bytes.writeUInt32LE(1600, 40);
  return bytes.toString('latin1');
})();

const LongestPart = 300; // of a query: longer heads are refused before anybody knows the path

/** Bodies that are no JSON object, as they are sent. */
const RawBodies = fc.constantFrom('', ' ', 'null', '[]', '"x"', '7', '{', '{"a":1,}', '{"name":1e999}', '{"name":"\\ud800"}',
  '[' .repeat(5000), '{"a":'.repeat(3000), '{"name":"a","name":"b"}', '\u0000', '\ufeff{}', 'name=x');

const Segments = fc.constantFrom('0', '-1', '1.5', '01', '+1', '1e3', 'x', '%00', '%ff', '%F0%9F%98%80', "'", '%27%20OR%201', '2147483648',
  '99999999999999999999', '%2e%2e', '%2F', '%25', 'A'.repeat(32), 'f'.repeat(33), 'a'.repeat(1200));

// Members that name other objects, and where such are found.
const Resources = { speakers: 'speakers', serial: 'speakers', groups: 'groups', group: 'groups', sounds: 'sounds', calendar: 'calendars',
  plan: 'plans', account: 'accounts', master: 'accounts' };

export class Values {
  constructor(document) {
    this.document = document;
    this.known = new Map();
  }

  /** Remembers that an object is there, so that requests name it. */
  remember(resource, id) {
    const ids = this.known.get(resource) ?? [];
    if (!ids.includes(id)) this.known.set(resource, [id, ...ids].slice(0, 40));
  }

  /** Forgets what a path names that is gone. */
  forget(target) {
    const parts = target.split('?')[0].split('/');
    for (const [resource, ids] of this.known) this.known.set(resource, ids.filter((id) => !(parts.includes(resource) && parts.includes(String(id)))));
  }

  #knownOr(resource, other, others = 1) {
    const pick = fc.nat().map((at) => (this.known.get(resource) ?? [])[at % (this.known.get(resource)?.length || 1)]);
    return fc.tuple(pick, other, fc.nat(others)).map(([id, value, luck]) => (luck && id !== undefined ? id : value));
  }

  /** A value that fits the schema. */
  fitting(schema, member = '') {
    const told = this.document.resolve(schema);
    const value = this.#plain(told, member);
    return Resources[member] && told.type !== 'array' && told.type !== 'object' && !told.oneOf ? this.#knownOr(Resources[member], value, 12) : value;
  }

  #plain(told, member) {
    if ('const' in told) return fc.constant(told.const);
    if (told.enum) return fc.constantFrom(...told.enum);
    if (told.oneOf) return fc.oneof(...told.oneOf.map((one) => this.fitting(one, member)));
    if (told.type === 'null') return fc.constant(null);
    if (told.type === 'boolean') return fc.boolean();
    if (told.type === 'integer' || told.type === 'number') return number(told);
    if (told.type === 'array')
      return fc.array(this.fitting(told.items, member), { minLength: told.minItems ?? 0, maxLength: Math.min(told.maxItems ?? 4, 4) });
    if (told.type === 'object') return this.#object(told);
    return text(told);
  }

  #object(told) {
    const members = Object.fromEntries(Object.entries(told.properties ?? {}).map(([name, one]) => [name, this.fitting(one, name)]));
    const needed = told.required ?? [];
    const least = Object.fromEntries(needed.map((name) => [name, members[name]]));
    return fc.oneof(fc.record(members, { requiredKeys: needed }), fc.record(needed.length ? least : members, { requiredKeys: needed }));
  }

  /** {text, type}: a body as it is sent, with its media type. */
  body(content) {
    const [type, media] = Object.entries(content)[0];
    if (!type.includes('json')) return this.#bytes(content);
    const fitting = this.fitting(media.schema);
    const names = Object.keys(this.document.resolve(media.schema).properties ?? { name: 1 });
    const changed = fc.tuple(fitting, fc.constantFrom(...names, 'unknown'), Junk).map(([object, name, junk]) => ({ ...object, [name]: junk }));
    const lacking = fc.tuple(fitting, fc.constantFrom(...names)).map(([object, name]) => ({ ...object, [name]: undefined }));
    const json = fc.oneof({ weight: 6, arbitrary: fitting }, { weight: 4, arbitrary: changed }, { weight: 1, arbitrary: lacking }, { weight: 1, arbitrary: Junk });
    return fc.oneof(
      { weight: 12, arbitrary: json.map((value) => ({ text: JSON.stringify(value), type })) },
      { weight: 1, arbitrary: RawBodies.map((raw) => ({ text: raw, type })) },
      { weight: 1, arbitrary: fitting.map((value) => ({ text: JSON.stringify(value), type: 'text/plain' })) },
    );
  }

  #bytes(content) {
    const types = fc.constantFrom(...Object.keys(content), 'application/json', 'text/plain');
    const example = Object.values(content)[0].example ?? '';
    const texts = fc.oneof(fc.constantFrom(example, example.slice(0, 60), example.repeat(3), '', '{}'), fc.string({ unit: 'binary', maxLength: 2000 }));
    const wrong = fc.tuple(texts, types).map(([bytes, type]) => ({ text: bytes, type }));
    return fc.oneof(wrong, fc.constant({ text: content['audio/mpeg'] ? Tone : example, type: Object.keys(content)[0] }));
  }

  /** The path of an operation with its parameters in their places, its query included. */
  target(operation) {
    const resource = (name) => (name === 'entry' ? 'entries' : operation.path.split('/')[1]);
    const inPath = operation.parameters.filter((parameter) => parameter.in === 'path');
    const segments = inPath.map((parameter) =>
      fc.oneof({ weight: 5, arbitrary: this.#knownOr(resource(parameter.name), this.fitting(parameter.schema), 8) }, { weight: 1, arbitrary: Segments }));
    const inQuery = operation.parameters.filter((parameter) => parameter.in === 'query');
    const values = Object.fromEntries(inQuery.map((parameter) => [parameter.name,
      fc.oneof({ weight: 12, arbitrary: this.fitting(parameter.schema, parameter.name) }, { weight: 1, arbitrary: Junk.map((junk) => String(junk).slice(0, LongestPart)) })]));
    const query = fc.record({ ...values, unknown: fc.constant('1') }, { requiredKeys: [] })
      .chain((all) => fc.nat(19).map((luck) => (luck ? { ...all, unknown: undefined } : all)));
    return fc.tuple(fc.tuple(...segments), query).map(([parts, asked]) => {
      const path = inPath.reduce((at, parameter, index) => at.replace(`{${parameter.name}}`, parts[index]), operation.path);
      const told = Object.entries(asked).filter(([, value]) => value !== undefined)
        .map(([name, value]) => `${name}=${encodeURIComponent(String(value).toWellFormed?.() ?? String(value))}`);
      return told.length ? `${path}?${told.join('&')}` : path;
    });
  }
}

function number(told) {
  const range = { min: told.minimum ?? -(2 ** 31), max: told.maximum ?? 2 ** 31 - 1 };
  return fc.oneof(fc.integer(range), fc.constantFrom(range.min, range.max), fc.integer({ min: range.min, max: Math.min(range.max, range.min + 20) }));
}

function text(told) {
  if (told.pattern) return fc.stringMatching(new RegExp(told.pattern));
  const times = fc.date({ min: new Date('1971-01-01'), max: new Date('2100-01-01'), noInvalidDate: true });
  if (told.format === 'date-time') return times.map((time) => time.toISOString());
  if (told.format === 'date') return times.map((time) => time.toISOString().slice(0, 10));
  const length = { minLength: told.minLength ?? 0, maxLength: told.maxLength ?? 60 };
  const printable = fc.string({ unit: 'grapheme-ascii', ...length });
  return fc.oneof({ weight: 6, arbitrary: printable }, { weight: 1, arbitrary: fc.string({ unit: 'binary', ...length }) });
}

// Holds docs/openapi.json to the OpenAPI 3.1 standard, and its examples to its schemas.
// usage: node check.mjs openapi.json
import { Validator } from '@seriousme/openapi-schema-validator';
import { Document } from './document.mjs';

const faults = [];
const say = (where, what) => faults.push(`${where}: ${what}`);
const document = new Document(process.argv[2]);

const standard = await new Validator({ strict: false }).validate(structuredClone(document.json));
if (!standard.valid) {
  for (const error of [standard.errors].flat()) say(error.instancePath ?? 'document', error.message ?? String(error));
}

function checkContent(where, content) {
  for (const [type, media] of Object.entries(content ?? {})) {
    const at = `${where}, ${type}`;
    if (!media.schema) say(at, 'has no schema');
    else if (media.example !== undefined) {
      const wrong = document.faultsOf(media.schema, media.example);
      if (wrong) say(at, `the example does not fit its schema: ${wrong}`);
    } else if (media.schema.$ref) say(at, 'has no example');
  }
}

const Problem = 'application/problem+json';
for (const operation of document.operations()) {
  const { name, path, method, responses, parameters, body, isOpen } = operation;
  checkContent(`${name}, body`, body?.content);
  for (const [status, response] of Object.entries(responses)) {
    const at = `${name}, ${status}`;
    checkContent(at, response.content);
    if (status >= 400 && !response.content?.[Problem]) say(at, `a refusal is ${Problem}`);
    if (status === '204' && response.content) say(at, 'has no content');
  }
  if (!Object.keys(responses).some((status) => status < 300)) say(name, 'tells no answer of success');
  for (const [status, when] of [['401', !isOpen], ['422', true], ['404', path.includes('{')], ['415', body?.content['application/json']]])
    if (when && !responses[status]) say(name, `does not tell ${status}`);
  const inPath = [...path.matchAll(/{(\w+)}/g)].map((match) => match[1]).sort().join();
  const told = parameters.filter((parameter) => parameter.in === 'path').map((parameter) => parameter.name).sort().join();
  if (inPath !== told) say(name, `path parameters are "${told}", its path has "${inPath}"`);
  if (method === 'GET' && body) say(name, 'a GET has no body');
}

if (faults.length) {
  console.error(`docs/openapi.json, ${faults.length} faults (an entry's place, then what to mend):\n${faults.join('\n')}`);
  process.exit(1);
}
console.log(`${document.operations().length} operations, ${Object.keys(document.json.components.schemas).length} schemas: valid`);

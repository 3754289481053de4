// The document of the interface v1: read, and its schemas ready to check values against.
import { readFileSync } from 'node:fs';
import Ajv2020 from 'ajv/dist/2020.js';
import addFormats from 'ajv-formats';

const Methods = ['get', 'post', 'patch', 'delete', 'put'];

export class Document {
  constructor(file) {
    this.json = JSON.parse(readFileSync(file, 'utf8'));
    this.ajv = new Ajv2020({ strict: false, allErrors: true });
    addFormats(this.ajv);
    this.ajv.addSchema(this.json, 'document');
    this.checks = new Map();
  }

  /** What a "$ref" names, or the value itself. */
  resolve(value) {
    if (!value?.$ref) return value;
    const parts = value.$ref.replace(/^#\//, '').split('/').map((part) => part.replace(/~1/g, '/').replace(/~0/g, '~'));
    const found = parts.reduce((at, part) => at?.[part], this.json);
    if (found === undefined) throw new Error(`${value.$ref} is not in the document`);
    return this.resolve(found);
  }

  /** Every operation: {name, method, path, parameters, body, responses, isOpen}, references followed. */
  operations() {
    return Object.entries(this.json.paths).flatMap(([path, methods]) =>
      Methods.filter((method) => methods[method]).map((method) => {
        const told = methods[method];
        const responses = Object.entries(told.responses).map(([status, response]) => [status, this.resolve(response)]);
        return {
          name: `${method.toUpperCase()} ${path}`,
          method: method.toUpperCase(),
          path,
          parameters: (told.parameters ?? []).map((parameter) => this.resolve(parameter)),
          body: this.resolve(told.requestBody),
          responses: Object.fromEntries(responses),
          isOpen: told.security?.length === 0,
        };
      }),
    );
  }

  /** What is wrong with a value, as text; empty: nothing. */
  faultsOf(schema, value) {
    if (!this.checks.has(schema)) this.checks.set(schema, this.ajv.compile(this.#absolute(schema)));
    const check = this.checks.get(schema);
    return check(value) ? '' : this.ajv.errorsText(check.errors, { dataVar: 'value' });
  }

  // A schema is checked apart from its document: its references are to say which one they mean.
  #absolute(schema) {
    return JSON.parse(JSON.stringify(schema), (key, value) =>
      key === '$ref' && value.startsWith('#/') ? `document${value}` : value);
  }
}

#!/usr/bin/env node
// One command of the account-centred query sets on MySQL.
//   environment: "__path", the request path; "sqlmeip", "sqlmeport", "sqlmeusername", "sqlmepasswd",
//                "sqlmebasename", "sqlmedbk", the database
//   standard input: one JSON object, the request's parameters as texts
//   standard output: the reply; exit status 0 when there is one
// The commands stand in queries.json, whose head tells the meaning of its keys. Values are bound, never
// pasted into a statement.
'use strict';
const crypto = require('crypto');
const fs = require('fs');
const path = require('path');

const MYSQL = '1';
const CONNECT_LIMIT = 5000; // ms
const LARGEST_INT = 2147483647;
// The statements write quoted numbers, empty texts and missing columns.
const SESSION = [
  'SET NAMES utf8mb4 COLLATE utf8mb4_bin',
  "SET SESSION sql_mode = 'NO_ENGINE_SUBSTITUTION'",
  'SET SESSION innodb_lock_wait_timeout = 5',
];

class Refusal extends Error {}

function wholeNumber(text) {
  const number = /^\s*[+-]?\d+\s*$/.test(text) ? Number(text) : 0;
  return Math.abs(number) <= LARGEST_INT ? number : 0;
}

function numbersIn(text) {
  return text.split(/[|,]/).map((entry) => entry.trim())
    .filter((entry) => /^[+-]?\d+$/.test(entry) && Number.isSafeInteger(Number(entry))).map(Number);
}

function isDate(text) {
  const [year, month, day] = text.slice(0, 10).split('-').map(Number);
  const date = new Date(Date.UTC(year, month - 1, day));
  return /^\d{4}-\d{2}-\d{2}/.test(text) && date.getUTCMonth() === month - 1 && date.getUTCDate() === day;
}

// A text of the request, or of a row, as the type's value; undefined when it is none of that type.
const CONVERT = {
  int: wholeNumber,
  text: (text, mayBeEmpty) => (text !== '' || mayBeEmpty ? text : undefined),
  password: (text) => (text !== '' ? text : undefined), // hashed by the service, where it is to be
  idtext: (text) => numbersIn(text).join(','),
  ids: (text) => (numbersIn(text).length > 0 ? numbersIn(text) : [0]),
  serial: (text) => (/^[0-9a-f]{32}$/.test(text) ? text : undefined),
  date: (text) => (isDate(text) ? text : undefined),
  random: () => crypto.randomBytes(20).toString('hex'),
};

function commandOf(table, requestPath) {
  const [, set, rest] = /^\/user\/(fnkukei|fnckukei|fnokukei)\/(.*)$/.exec(requestPath) || [];
  if (!set) return undefined;
  // The open set holds what needs no service key, which this program is not told.
  const isIn = (command) => (set === 'fnokukei' ? !command.access.includes('servicekey') : command.sets.includes(set));
  return table.commands.find((command) => isIn(command) && rest.startsWith(command.name));
}

function parametersOf(table, command) {
  return [...command.access.map((name) => table.access[name]), command].flatMap((part) => part.parameters);
}

function stepsOf(table, command) {
  return [...command.access.map((name) => table.access[name]), command].flatMap((part) => part.steps);
}

function valuesOf(table, command, given) {
  const values = {};
  for (const parameter of parametersOf(table, command)) {
    const text = given[parameter.name] ?? given[parameter.or];
    if (text === undefined && parameter.type !== 'random') throw new Refusal('ParER');
    values[parameter.name] = CONVERT[parameter.type](String(text ?? '').trim(), parameter.empty === true);
    if (values[parameter.name] === undefined) throw new Refusal('ParER');
  }
  return values;
}

// The statement with "?" for each quoted placeholder, and the values in their order.
function bind(table, statement, values) {
  const bound = [];
  const valueOf = (name) => {
    const value = values[name] ?? values[table.same[name]];
    if (value === undefined) throw new Error(`no value for @${name}`);
    return value;
  };
  const sql = statement.replace(/'@(\w+)'|@(\w+)/g, (_, quoted, list) => {
    if (list) return valueOf(list).join(',');
    bound.push(valueOf(quoted));
    return '?';
  });
  return [sql, bound];
}

function take(step, rows, values) {
  for (const [column, type] of Object.entries(step.take ?? {})) {
    values[column] = CONVERT[type](String(rows[0]?.[column] ?? '').trim(), true);
  }
}

async function runSteps(connection, table, command, values) {
  let result;
  for (const step of stepsOf(table, command)) {
    [result] = await connection.execute(...bind(table, step.statement, values));
    if (step.rows === 'some' && result.length === 0) throw new Refusal('ER_REJECT');
    if (step.rows === 'none' && result.length > 0) throw new Refusal('ER_REJECT');
    take(step, result, values);
  }
  if (command.reply === 'write' && result.affectedRows === 0) throw new Refusal('ER_REJECT');
  return result;
}

function visible(table, rows) {
  for (const row of rows) for (const column of table.hidden) delete row[column];
  return rows;
}

async function answer(connection, table, command, values) {
  const writes = command.reply === 'write';
  if (writes) await connection.beginTransaction();
  const result = await runSteps(connection, table, command, values);
  if (writes) await connection.commit();
  return { res: true, info: 'SUC', ...(writes ? { EF: result.affectedRows } : { data: visible(table, result) }) };
}

function connect() {
  const { env } = process;
  return require('mysql2/promise').createConnection({
    host: env.sqlmeip,
    port: Number(env.sqlmeport),
    user: env.sqlmeusername,
    password: env.sqlmepasswd,
    database: env.sqlmebasename,
    charset: 'utf8mb4',
    dateStrings: true,
    connectTimeout: CONNECT_LIMIT,
  });
}

async function serve(table, command, given) {
  let connection;
  try {
    const values = valuesOf(table, command, given);
    connection = await connect();
    for (const statement of SESSION) await connection.query(statement);
    return await answer(connection, table, command, values);
  } catch (error) {
    if (!(error instanceof Refusal)) process.stderr.write(`find: ${command.name}: ${error.message}\n`);
    return { res: false, info: error instanceof Refusal ? error.message : 'ER_EXE' };
  } finally {
    connection?.destroy(); // the server rolls back what was not committed
  }
}

async function main() {
  const table = JSON.parse(fs.readFileSync(path.join(__dirname, 'queries.json'), 'utf8'));
  const given = JSON.parse(fs.readFileSync(0, 'utf8') || '{}');
  const command = commandOf(table, process.env.__path ?? '');
  let reply = { res: false, info: 'unknown_cmd' };
  if (process.env.sqlmedbk !== MYSQL) reply = { res: false, info: 'config.ini_dbk_ER' };
  else if (command) reply = await serve(table, command, given);
  process.stdout.write(`${JSON.stringify(reply, null, 4)}\n`);
}

main().catch((error) => {
  process.stderr.write(`find: ${error.message}\n`);
  process.exitCode = 1;
});

#!/usr/bin/env node
// Speaks a text file into a WAV file with the offline voice.
//   node tts.js VOLUME SPEED VOICE OUTPUT TEXTFILE
//   environment: "ttsxfAPPID", "ttsxfAPISecret", "ttsxfAPIKey", the keys of an online speech service
// VOLUME and SPEED go from 0 to 100, 50 is normal. VOICE is a voice of espeak-ng ("en", "cmn", "de", …);
// an unknown one stands for the voice that fits the text. Exit status 0 when OUTPUT was written.
'use strict';
const { spawnSync } = require('child_process');
const fs = require('fs');

const SLOWEST = 80; // words a minute
const FASTEST = 270;
const TIME_LIMIT = 100000; // ms
const HAN = /[\u3400-\u9fff\uf900-\ufaff]/;

function fail(message) {
  process.stderr.write(`tts: ${message}\n`);
  process.exit(1);
}

function scale(value, low, high) {
  const number = Math.min(100, Math.max(0, Number.parseInt(value, 10) || 0));
  return String(Math.round(low + (number * (high - low)) / 100));
}

function isVoice(name) {
  if (!/^[A-Za-z][A-Za-z0-9-]{0,30}$/.test(name)) return false;
  const list = spawnSync('espeak-ng', [`--voices=${name}`], { encoding: 'utf8', timeout: TIME_LIMIT });
  return list.status === 0 && list.stdout.trim().split('\n').length > 1;
}

function main([volume, speed, voice, output, textFile]) {
  if (!textFile) fail('usage: tts.js VOLUME SPEED VOICE OUTPUT TEXTFILE');
  const appId = process.env.ttsxfAPPID;
  if (appId && appId !== 'none') {
    process.stderr.write('tts: speech service credentials are configured, but no online service is built in; ' +
      'the offline voice speaks\n');
  }
  const text = fs.readFileSync(textFile, 'utf8');
  const chosen = isVoice(voice) ? voice : HAN.test(text) ? 'cmn' : 'en';
  const run = spawnSync('espeak-ng', ['-v', chosen, '-a', scale(volume, 0, 200), '-s', scale(speed, SLOWEST, FASTEST),
    '-b', '1', '-f', textFile, '-w', output], { encoding: 'utf8', timeout: TIME_LIMIT });
  if (run.error) fail(`espeak-ng: ${run.error.message}`);
  if (run.status !== 0) fail(`espeak-ng: ${run.stderr.trim()}`);
}

main(process.argv.slice(2));

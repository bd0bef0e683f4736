// SPDX-License-Identifier: MIT
'use strict';

const ORDER = {refPosition: 17, refVelocity: 18, viaClear: 48, start: 53, cancel: 54, point: 58,
               servoOff: 161, servoOn: 162, mode: 163};
const MODE = {trajectory: 0, velocity: 1, position: 20};
const MODES = {0: 'trajectory', 1: 'velocity', 2: 'current', 5: 'ext-force', 7: 'online-trj', 10: 'fixed', 20: 'position'};
const SERVO = {0: 'off', 2: 'on', 3: 'FAULT'};
const TRAJECTORY = {0: 'idle', 1: 'starting', 2: 'moving', 3: 'reached', 4: 'finished', 5: 'cancelling', 6: 'cancelled',
                    102: 'no point', 109: 'servo off!', 111: 'interrupted'};
const FIELDS = ['position', 'velocity', 'effort', 'current', 'temperature', 'refPosition', 'refVelocity', 'refEffort'];
const SILENCE = 0.5;  // s without a status, after which the arm counts as away
const FRESH = 0.15;   // s, for a position that a target may be made from
const WEB_HZ = 50;    // at most; what a plot has room for

const $ = (id) => document.getElementById(id);
const seconds = () => performance.now() / 1000;
const token = decodeURIComponent(location.hash.slice(1)).replace(/^token=/, '');

let socket = null, isOpen = false, retry = 0.5;
let held = false, yours = false, stopped = false, allowed = true;
let state = null, stateTime = -Infinity, statistics = null, statisticsTime = 0, rate = null;
let keepPeriod = 0.1, lastSent = 0, nextId = 1, isLeaving = false;
let history = null, plots = [], rows = [];
const waiting = new Map();  // by a command's id: called with its outcome
const moves = new Map();    // by joint: {direction} while a jog is held, or {goal}; {target} once it has begun

// ---- messages

function send(message) {
  if (!isOpen) return false;
  socket.send(JSON.stringify(message));
  lastSent = seconds();
  return true;
}

/** One joint's part of a command document; joints count from 0 here and from 1 there. */
function jointCommand(joint, order, ...values) {
  const command = {jointName: String(joint + 1), jointOrder: String(order)};
  for (let i = 0; i < 4; ++i) command[`value${i + 1}`] = Number(values[i] ?? 0).toFixed(6);
  return command;
}

/** @return a promise of the outcome, if it is to be confirmed */
function command(jointCommands, confirm = false) {
  const message = {command: {armOrder: '0', jointCommand: jointCommands}};
  if (!confirm) return send(message);
  message.id = `page-${nextId++}`;
  message.confirm = true;
  return new Promise((resolve) => {
    if (!send(message)) return resolve({outcome: 'discarded', reason: 'the bridge is gone'});
    waiting.set(message.id, resolve);
  });
}

const everyJoint = (order, ...values) => rows.map((_, joint) => jointCommand(joint, order, ...values));

async function confirmed(what, jointCommands) {
  const {outcome, reason} = await command(jointCommands, true);
  if (outcome !== 'confirmed') note(`${what}: ${outcome}${reason ? ` (${reason})` : ''}`, true);
  return outcome === 'confirmed';
}

function receive(text) {
  const message = JSON.parse(text);
  if (message.state) return takeState(message.state);
  if (message.control) {
    ({held, yours} = message.control);
    if (!yours) endMoves();
    showControl();
  } else if (message.outcome) {
    const {id, outcome, reason} = message.outcome;
    if (waiting.has(id)) {
      waiting.get(id)(message.outcome);
      waiting.delete(id);
    } else if (outcome === 'refused') {
      note(`refused: ${reason}`, true);
      endMoves();
    }
  } else if (message.event) {
    const {kind, text: words, time} = message.event;
    if (kind === 'overrun') return;  // the arm's loop was late: a figure, not news
    if (kind === 'dead-man') setStopped(true);
    if (kind === 'rearmed') setStopped(false);
    note(words && words !== kind ? `${kind}: ${words}` : kind, ['lost', 'dead-man', 'gave up'].includes(kind), new Date(time));
  }
}

function connect() {
  socket = new WebSocket(`${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/ws`);
  socket.onopen = () => {
    isOpen = true;
    retry = 0.5;
    if (token) socket.send(JSON.stringify({token}));
    askStatistics();
  };
  socket.onmessage = (event) => receive(event.data);
  socket.onclose = (event) => {
    if (isOpen) note(`the bridge is gone${event.reason ? `: ${event.reason}` : ''}`, true);
    isOpen = held = yours = false;
    for (const resolve of waiting.values()) resolve({outcome: 'discarded', reason: 'the bridge is gone'});
    waiting.clear();
    endMoves();
    showControl();
    if (!isLeaving) setTimeout(connect, retry * 1000);
    retry = Math.min(2 * retry, 5);
  };
}

async function askStatistics() {
  try {
    const answer = await fetch('/api/statistics', token ? {headers: {Authorization: `Bearer ${token}`}} : {});
    if (!answer.ok) return;
    const next = await answer.json(), now = seconds();
    if (statistics && next.session.frames_received >= statistics.session.frames_received) {
      rate = (next.session.frames_received - statistics.session.frames_received) / (now - statisticsTime);
    } else {
      for (const {kind, text, time} of next.events) if (kind !== 'overrun') note(text ? `${kind}: ${text}` : kind, kind === 'lost', new Date(time));
    }
    statistics = next;
    statisticsTime = now;
    allowed = next.commands;
    keepPeriod = Math.min(0.1, next.control_timeout / 4);
    document.body.classList.toggle('view-only', !allowed);
    setStopped(next.stopped);
    showFigures();
  } catch { /* the WebSocket shows that the bridge is gone */ }
}

// ---- what is shown

function note(text, isBad = false, when = new Date()) {
  const item = document.createElement('li'), time = document.createElement('time');
  time.textContent = when.toLocaleTimeString('en-GB');
  item.append(time, text);
  item.classList.toggle('bad', isBad);
  $('log').prepend(item);
  while ($('log').children.length > 50) $('log').lastChild.remove();
}

function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

function setStopped(value) {
  stopped = value;
  if (stopped) endMoves();
  showControl();
}

function isArmThere() { return isOpen && seconds() - stateTime < SILENCE; }

function showControl() {
  const canCommand = yours && isOpen && !stopped;
  $('take').disabled = !isOpen || held || !allowed;
  $('give').disabled = !yours;
  $('rearm').disabled = !yours;
  $('rearm').classList.toggle('wanted', yours && stopped);
  for (const button of document.querySelectorAll('#servo-on, #servo-off, #run, td button')) button.disabled = !canCommand;
  document.body.classList.toggle('holding', yours);
  setText($('holder'), !allowed ? 'View only: the bridge takes no commands. STOP works.' :
          yours ? 'You hold control.' : held ? 'Somebody else holds control.' : 'Nobody holds control.');
}

function showFigures() {
  const {client = {}, reconnections} = statistics.session;
  setText($('link'), `${statistics.link}, ${statistics.joints} joints`);
  setText($('rate'), rate === null ? '–' : `${rate.toFixed(0)} Hz`);
  setText($('latency'), statistics.latency_ms === undefined ? '–' : `${statistics.latency_ms.toFixed(2)} ms`);
  setText($('reconnections'), String(reconnections));
  setText($('bad'), String(statistics.session.frames_bad_crc ?? client.frames_bad_crc ?? 0));
}

/** Whether bridge and arm are there, and how old the numbers are. */
function showHealth() {
  const age = seconds() - stateTime, there = isArmThere();
  const words = there ? 'connected' : isOpen ? 'arm away' : 'bridge gone';
  setText($('health'), words);
  $('health').classList.toggle('good', there);
  document.body.classList.toggle('stale', !there);
  setText($('age'), !Number.isFinite(age) ? '–' : age < 0.1 ? '< 0.1 s' : age < 1 ? `${age.toFixed(1)} s` : `${age.toFixed(0)} s`);
  const old = Number.isFinite(age) ? ` The numbers are ${age.toFixed(0)} s old.` : '';
  const banner = !isOpen ? `The bridge is gone; trying again.${old}` :
      !there ? `The arm is away; the bridge tries again.${old}` :
      stopped && !allowed ? 'The arm was stopped.' :
      stopped ? `The arm was stopped. It takes no commands until ${yours ? 'you rearm it' : 'who holds control rearms it'}.` : '';
  setText($('banner'), banner);
  $('banner').hidden = banner === '';
}

function makeRows(joints) {
  const labels = [...document.querySelectorAll('#joints th')].map((head) => head.textContent);
  const body = document.querySelector('#joints tbody');
  body.replaceChildren();
  rows = Array.from({length: joints}, (_, joint) => {
    const row = body.insertRow();
    const cells = labels.map((label, column) => {
      const cell = row.insertCell();
      cell.dataset.label = label;
      if (column >= 1 && column <= 4) cell.className = 'number';
      return cell;
    });
    const swatch = document.createElement('span');
    swatch.className = 'swatch';
    swatch.style.background = jointColour(joint, joints);
    cells[0].append(swatch, String(joint + 1));
    cells[9].className = 'jog command';
    cells[9].append(jogButton(joint, -1), ' ', jogButton(joint, 1));
    cells[10].className = 'goto command';
    const goal = document.createElement('input'), go = document.createElement('button');
    goal.type = 'text';
    goal.inputMode = 'decimal';
    goal.ariaLabel = `Position for joint ${joint + 1}`;
    go.type = 'button';
    go.textContent = 'Go';
    go.ariaLabel = `Go, joint ${joint + 1}`;
    const begin = () => beginMove(joint, {goal: Number(goal.value)}, goal.value.trim() !== '' && isFinite(goal.value));
    go.addEventListener('click', begin);
    goal.addEventListener('keydown', (event) => { if (event.key === 'Enter') begin(); });
    cells[10].append(goal, ' ', go);
    const values = cells.slice(1, 9).map((cell) => {  // each in a box of its own, so that a change lays out no more
      const box = document.createElement('div');
      box.append('');
      cell.append(box);
      return box.firstChild;
    });
    return {row, cells, values, texts: [], lit: []};
  });
  history = new History(joints, FIELDS, WEB_HZ);
  showControl();
  showJoints();
}

const fixed = (text) => Number(text).toFixed(3);

function showJoints() {
  const now = seconds();
  state.jointState.forEach((joint, i) => {
    const {row, cells, values, texts, lit} = rows[i];
    const faults = Number(joint.ewStatus);
    const shown = [fixed(joint.position), fixed(joint.velocity), fixed(joint.effort), Number(joint.temperature).toFixed(1),
                   MODES[joint.ctrlMode] ?? joint.ctrlMode, SERVO[joint.systemMode] ?? joint.systemMode,
                   TRAJECTORY[joint.trjStatus] ?? joint.trjStatus,
                   faults ? `0x${faults.toString(16).padStart(8, '0')}` : joint.systemMode === '3' ? 'FAULT' : ''];
    shown.forEach((text, k) => {
      const cell = cells[k + 1];
      if (texts[k] !== text) {
        values[k].data = text;
        if (texts[k] !== undefined && !lit[k]) cell.classList.add('lit');
        if (texts[k] !== undefined) lit[k] = now + 0.4;
        texts[k] = text;
      } else if (lit[k] && now > lit[k]) {
        lit[k] = 0;
        cell.classList.remove('lit');
      }
    });
    row.classList.toggle('faulty', joint.systemMode === '3' || faults !== 0);
  });
}

function takeState(document) {
  state = document;
  stateTime = seconds();
  if (rows.length !== state.jointState.length) makeRows(state.jointState.length);
  history.add(stateTime, (field, joint) => +state.jointState[joint][field]);
}

// ---- motion: targets that advance 20 times a second

const position = (joint) => Number(state.jointState[joint].position);
const mode = (joint) => Number(state.jointState[joint].ctrlMode);

function canMove() { return yours && isArmThere() && !stopped; }

function beginMove(joint, move, isGood = true) {
  if (!canMove()) return;
  if (!isGood) return note(`joint ${joint + 1}: the position is no number`, true);
  if (Number(state.jointState[joint].systemMode) !== 2) note(`joint ${joint + 1}: the servo is off`, true);
  if (mode(joint) !== MODE.position) confirmed('position mode', [jointCommand(joint, ORDER.mode, MODE.position)]);
  moves.set(joint, move);
}

/** No further target; with a stop for what it moved, if that can still be said. */
function endMove(joint) {
  const move = moves.get(joint);
  if (!moves.delete(joint) || move.target === undefined || !yours || stopped) return;
  const stop = [jointCommand(joint, ORDER.cancel)];
  command(stop);
}

function endMoves() {
  for (const joint of [...moves.keys()]) endMove(joint);
  for (const button of document.querySelectorAll('td button.active')) button.classList.remove('active');
}

let lastTick = seconds();

function advance() {
  const now = seconds(), elapsed = Math.min(now - lastTick, 0.1), speed = Number($('speed').value);
  lastTick = now;
  if (moves.size === 0) return;
  if (!canMove()) return endMoves();
  if (now - stateTime > FRESH) return;  // no target from a position that is no longer known
  const commands = [];
  for (const [joint, move] of [...moves]) {
    if (mode(joint) !== MODE.position) continue;  // until the controller has changed it
    const at = position(joint);
    move.target ??= at;
    const way = move.direction ?? Math.sign(move.goal - move.target);
    let target = move.target + way * speed * elapsed;
    if ((move.goal - target) * way <= 0) target = move.goal;
    const lead = 0.2 * speed;  // a joint that lags is not left behind, to jump when something was held up
    target = Math.min(Math.max(target, at - lead), at + lead);
    move.target = target;
    commands.push(jointCommand(joint, ORDER.refPosition, target));
    if (target === move.goal) moves.delete(joint);
  }
  if (commands.length > 0) command(commands);
}

/** Moves its joint for as long as it is held: by pointer, or by the Enter key. */
function jogButton(joint, direction) {
  const button = document.createElement('button');
  button.type = 'button';
  button.textContent = direction < 0 ? '-' : '+';
  button.ariaLabel = `Jog joint ${joint + 1} ${button.textContent}`;
  const begin = () => {
    if (button.disabled || moves.get(joint)?.button === button) return;
    endMove(joint);
    beginMove(joint, {direction, button});
    button.classList.toggle('active', moves.has(joint));
  };
  const end = () => {
    if (moves.get(joint)?.button !== button) return;
    button.classList.remove('active');
    endMove(joint);
  };
  button.addEventListener('pointerdown', (event) => {
    if (event.button !== 0) return;
    if (button.hasPointerCapture(event.pointerId)) button.releasePointerCapture(event.pointerId);  // so that leaving shows
    begin();
  });
  for (const name of ['pointerup', 'pointerleave', 'pointercancel', 'blur']) button.addEventListener(name, end);
  button.addEventListener('contextmenu', (event) => event.preventDefault());
  button.addEventListener('keydown', (event) => { if (event.key === 'Enter') { event.preventDefault(); begin(); } });
  button.addEventListener('keyup', (event) => { if (event.key === 'Enter') end(); });
  return button;
}

/** @return one list of numbers per line, NaN for an empty place; or a text that says what is wrong */
function readPoints() {
  const points = [];
  for (const [i, line] of $('points').value.split('\n').entries()) {
    if (line.trim() === '') continue;
    const numbers = line.split(',').map((text) => text.trim() === '' ? NaN : Number(text));
    const isBad = line.split(',').some((text) => text.trim() !== '' && !Number.isFinite(Number(text)));
    const isLate = points.length === 0 || numbers[0] > points.at(-1)[0];
    if (isBad || !(numbers[0] > 0) || !isLate || numbers.length < 2 || numbers.length > rows.length + 1) {
      return `line ${i + 1}: later seconds than before, then up to ${rows.length} positions`;
    }
    points.push(numbers);
  }
  return points.length > 0 ? points : 'there is no point';
}

async function runTrajectory() {
  const points = readPoints();
  const say = (text) => setText($('run-result'), text);
  if (typeof points === 'string') return say(points);
  endMoves();
  const joints = rows.map((_, joint) => joint).filter((joint) => points.some((point) => !isNaN(point[joint + 1] ?? NaN)));
  const each = (order, ...values) => joints.map((joint) => jointCommand(joint, order, ...values));
  const steps = [each(ORDER.mode, MODE.trajectory), each(ORDER.viaClear),
                 ...points.map((point) => joints.filter((joint) => !isNaN(point[joint + 1] ?? NaN))
                     .map((joint) => jointCommand(joint, ORDER.point, point[joint + 1], point[0]))),
                 each(ORDER.start)];
  say('sending');
  for (const step of steps) {
    if (!await confirmed('trajectory', step)) return say('not started');
  }
  say('started');
}

// ---- what a person does

function stopArm() {
  for (const joint of [...moves.keys()]) moves.delete(joint);
  endMoves();
  if (!send({stop: true})) note('STOP could not be sent: the bridge is gone', true);
}

function leaveControl() {
  endMoves();
  if (yours) send({control: 'give'});
}

$('stop').addEventListener('pointerdown', stopArm);
$('stop').addEventListener('keydown', (event) => { if (event.key === 'Enter') stopArm(); });
$('stop').addEventListener('click', (event) => { if (event.detail === 0) stopArm(); });  // from assistive technology
$('take').addEventListener('click', () => send({control: 'take'}));
$('give').addEventListener('click', leaveControl);
$('rearm').addEventListener('click', () => send({rearm: true}));
$('servo-on').addEventListener('click', () => confirmed('servo on', everyJoint(ORDER.servoOn)));
$('servo-off').addEventListener('click', () => { endMoves(); confirmed('servo off', everyJoint(ORDER.servoOff)); });
$('speed').addEventListener('input', () => setText($('speed-shown'), $('speed').value));
$('run').addEventListener('click', runTrajectory);
$('add-point').addEventListener('click', () => {
  if (!state) return;
  const points = readPoints(), time = typeof points === 'string' ? 1 : points.at(-1)[0] + 1;
  const line = [time.toFixed(1), ...rows.map((_, joint) => position(joint).toFixed(3))].join(', ');
  $('points').value = ($('points').value.trim() === '' ? '' : `${$('points').value.trimEnd()}\n`) + line;
});

// The space bar stops the arm wherever the focus is; nothing on this page needs a space.
for (const name of ['keydown', 'keyup']) {
  window.addEventListener(name, (event) => {
    if (event.code !== 'Space') return;
    event.preventDefault();
    event.stopPropagation();
    if (name === 'keydown' && !event.repeat) stopArm();
  }, true);
}
window.addEventListener('blur', endMoves);
// Nobody looks at a hidden page, so it gives control back. A page that is closed just ends: the bridge stops the arm.
window.addEventListener('pagehide', () => { isLeaving = true; socket?.close(); });
window.addEventListener('pageshow', (event) => { if (event.persisted) location.reload(); });
document.addEventListener('visibilitychange', () => { if (document.hidden && !isLeaving) leaveControl(); });

// ---- the page's clock

plots = [...document.querySelectorAll('figure')].map((figure, i) => new Plot(figure, FIELDS[i]));
for (const plot of plots) {
  plot.select.append(...FIELDS.map((field) => new Option(field, field, false, field === plot.field)));
  plot.select.addEventListener('change', () => { plot.field = plot.select.value; });
}

let ticks = 0;
new Worker('/worker.js').onmessage = () => {
  advance();
  if (yours && seconds() - lastSent >= keepPeriod - 0.025) send({control: 'keep'});
  ++ticks;
  if (ticks % 20 === 0 && isOpen) askStatistics();
  if (document.hidden || ticks % 2 !== 0) return;
  showHealth();
  if (!isArmThere()) return;
  for (const plot of plots) plot.draw(history, seconds());
  if (ticks % 4 === 0) showJoints();  // faster than anybody reads
};
connect();

// The console page: asks the daemon through the web server and shows what it answers. Data goes into the page as text
// only, never as HTML.

import { readAnswer, readGps } from "./answers.js";
import { smsLength } from "./sms_length.js";
import { chooseLanguage, TEXTS } from "./texts.js";

const REQUESTS = "/alarmd";
const PERIOD = 10000;  // ms between two refreshes
const LIMIT = 8000;  // ms for an answer
const OLD_FIX = 60000;  // ms
const GPS_OFF_ROUNDS = 6;  // GPS is switched on with a restart only, so one that is off is seldom asked for
const MOST_DIGITS = 15;  // of an international number (E.164)

const SEND_SMS = 50, STATUS = 51, GPS_RAW = 52, GPS = 53, LAST_SMS = 54, OFF = 55, ON = 56;
const MODEM_VALUES = ["TYPE", "IMEI", "CSQ", "COPS", "CREG", "CARDLOCK", "SYSCFG", "SYSCFGEX", "SYSINFO", "SYSINFOEX",
  "CGPADDR", "CGEQNEG"];

const element = (id) => document.getElementById(id);

// ---- what is remembered in this browser; it may not allow that

const memory = {
  get(key) {
    try {
      return JSON.parse(localStorage.getItem(`alarmd.${key}`));
    } catch {
      return null;
    }
  },
  set(key, value) {
    try {
      localStorage.setItem(`alarmd.${key}`, JSON.stringify(value));
    } catch {
      // It holds until the page is closed.
    }
  },
};

// ---- state: what was asked and answered last. show() makes the page of it.

const state = {
  language: chooseLanguage([memory.get("language") ?? "", ...navigator.languages]),
  answered: null,  // Date of the last answer
  failed: false,  // the last refresh has failed
  status: null,
  lastSms: null,
  gps: null,  // {off} or {bad} or {report}
  asked: memory.get("asked"),  // {on, time}: what was last switched from here
  sent: null,  // {number, time} or {refused} or {failed}
};

// ---- texts

function say(key, values = {}) {
  const text = TEXTS[state.language][key] ?? key;
  return text.replace(/\{(\w+)\}/g, (whole, name) => (name in values ? values[name] : whole));
}

const sayNumber = (value, digits) => value.toLocaleString(state.language,
  { minimumFractionDigits: digits, maximumFractionDigits: digits });
const sayClock = (date) => date.toLocaleTimeString(state.language, { hourCycle: "h23" });
const sayMoment = (date) => date.toLocaleString(state.language,
  { dateStyle: "medium", timeStyle: "medium", hourCycle: "h23" });

// A text that has not changed is left alone, so that it is not read out again.
function setText(id, text) {
  const node = element(id);
  if (node.textContent !== text) node.textContent = text;
}

function setRows(id, rows) {
  const list = element(id);
  const wanted = rows.flat();
  const present = [...list.children].map((node) => node.textContent);
  if (present.length === wanted.length && wanted.every((text, i) => present[i] === text)) return;
  list.replaceChildren(...rows.flatMap(([name, value]) => {
    const [term, detail] = [document.createElement("dt"), document.createElement("dd")];
    term.textContent = name;
    detail.textContent = value;
    return [term, detail];
  }));
}

// ---- the page

function showState() {
  const lost = state.failed && (state.answered ? say("lostSince", { time: sayClock(state.answered) }) : say("lost"));
  element("state").dataset.state = lost ? "lost" : state.answered ? "answers" : "asking";
  setText("state-text", lost || say(state.answered ? "answers" : "asking"));
  setText("state-time", state.answered && !lost ? say("lastAnswer", { time: sayClock(state.answered) }) : "");
  element("state-detail").hidden = !lost;
}

function showModem() {
  if (!state.status) return;
  const count = Number(state.status.SMSCOUNT);
  const known = (name) => state.status[name] !== "" && !(name === "TYPE" && state.status.TYPE === "0");
  const rows = MODEM_VALUES.filter(known).map((name) => [say(name), state.status[name]]);
  const updated = Number(state.status.UPDATED);
  if (updated > 0) rows.push([say("UPDATED"), sayMoment(new Date(updated * 1000))]);
  setText("sms-count", sayNumber(count, 0));
  setRows("modem-values", rows);
  element("modem-nothing").hidden = rows.length > 0;
}

function showLastSms() {
  if (!state.lastSms) return;
  const { Timestamp: seconds, From: from, Text: text } = state.lastSms;
  element("last-nothing").hidden = seconds !== 0;
  element("last-sms").hidden = seconds === 0;
  setText("last-text", text || say("emptySms"));
  setRows("last-values", [[say("from"), from], [say("received"), sayMoment(new Date(seconds * 1000))]]);
}

function showPosition() {
  const shown = state.gps !== null && !state.gps.off;
  element("position").hidden = !shown;
  if (!shown) return;
  const report = state.gps.report;
  const fix = report?.fix;
  const old = report?.time && Date.now() - report.time > OLD_FIX;
  const trouble = !report ? "badGps" : !fix ? "noFix" : old ? "oldFix" : "";
  element("position-nothing").hidden = !trouble;
  setText("position-nothing", trouble && say(trouble));
  setText("coordinates", fix ? `${fix.north.shown}, ${fix.east.shown}` : "");
  setRows("position-values", report ? positionRows(report) : []);
  element("map").hidden = !fix;
  if (fix) element("map").href = `geo:${fix.north.degrees.toFixed(6)},${fix.east.degrees.toFixed(6)}`;
}

function positionRows({ knots, kilometres, altitude, used, seen, time }) {
  const rows = [];
  if (kilometres !== null && knots !== null) {
    rows.push([say("speed"), `${sayNumber(kilometres, 1)}\u00a0km/h (${sayNumber(knots, 1)}\u00a0kn)`]);
  }
  if (altitude !== null) rows.push([say("altitude"), `${sayNumber(altitude, 0)}\u00a0m`]);
  if (used !== null && seen !== null) rows.push([say("satellites"), say("satellitesValue", { used, seen })]);
  if (time) rows.push([say("fixTime"), sayMoment(time)]);
  return rows;
}

function showAsked() {
  const time = state.asked && sayMoment(new Date(state.asked.time));
  setText("asked", !state.asked ? say("nothingAsked") : say(state.asked.on ? "askedOn" : "askedOff", { time }));
  const off = state.asked?.on === false;
  element("off-notice").hidden = !off;
  setText("off-notice", off ? say("offNotice", { time }) : "");
}

function showCounter() {
  const { used, room, count, unicode } = smsLength(element("text").value);
  setText("counter-used", say("counter", { used, room, count }));
  setText("counter-kind", unicode === undefined ? "GSM 7-bit" : "Unicode (UCS-2)");
  const hints = [unicode !== undefined && say("unicodeHint", { character: unicode }), count > 1 && say("longHint")];
  setText("counter-hint", hints.filter(Boolean).join(" "));
}

function showSent() {
  const { sent } = state;
  element("send-outcome").classList.toggle("error", Boolean(sent?.failed || sent?.refused));
  setText("send-outcome", !sent ? "" : sent.failed ? say("notSent") :
    sent.refused ? say("refused", { reason: sent.refused.message }) :
      say("queued", { number: sent.number, time: sayClock(sent.time) }));
}

function show() {
  showState();
  showModem();
  showLastSms();
  showPosition();
  showAsked();
  showCounter();
  showSent();
}

function setLanguage(language) {
  state.language = language;
  document.documentElement.lang = language;
  document.title = `${say("title")} – alarmd`;
  element("language").value = language;
  for (const node of document.querySelectorAll("[data-text]")) node.textContent = say(node.dataset.text);
  for (const id of ["number-error", "text-error", "switch-error"]) setText(id, "");
  show();
}

// ---- requests

async function ask(protocol, members = {}) {
  const response = await fetch(REQUESTS, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify({ t: protocol, ...members }),
    cache: "no-store",
    signal: AbortSignal.timeout(LIMIT),
  });
  if (!response.ok) throw new Error(`status ${response.status}`);
  return readAnswer(protocol, await response.text());
}

// An answer that says no; the message is its reason.
class Refusal extends Error {}

// Like ask, for what has to be granted.
async function demand(protocol, members) {
  const { granted, reason, data } = await ask(protocol, members);
  if (!granted) throw new Refusal(reason);
  return data;
}

// Parsed values are refused for two reasons; the raw ones are refused only while GPS is off.
async function askPosition() {
  const { granted, data } = await ask(GPS);
  if (granted) return { report: readGps(data) };
  return (await ask(GPS_RAW)).granted ? { bad: true } : { off: true };
}

let timer = 0;
let round = 0;
let refreshing = false;

async function refresh() {
  clearTimeout(timer);
  if (refreshing) return;
  refreshing = true;
  element("refresh").disabled = true;
  try {
    state.status = await demand(STATUS);
    state.lastSms = await demand(LAST_SMS);
    if (!state.gps?.off || round % GPS_OFF_ROUNDS === 0) state.gps = await askPosition();
    state.answered = new Date();
    state.failed = false;
  } catch {
    state.failed = true;
  }
  round += 1;
  refreshing = false;
  element("refresh").disabled = false;
  show();
  clearTimeout(timer);
  if (!document.hidden) timer = setTimeout(refresh, PERIOD);
}

// ---- sending

// The number as the modem takes it, null when it is none.
function plainNumber(written) {
  const plain = written.replace(/[\s-]/g, "");
  return /^(\+[1-9]\d*|\d+)$/.test(plain) && plain.replace("+", "").length <= MOST_DIGITS ? plain : null;
}

// Marks a field as wrong, or as right without a message.
function complain(id, message) {
  const wrong = message !== "";
  element(id).setAttribute("aria-invalid", String(wrong));
  setText(`${id}-error`, message);
  return wrong;
}

async function send(event) {
  event.preventDefault();
  const number = plainNumber(element("number").value);
  const text = element("text").value;
  const wrong = [complain("number", number === null ? say("badNumber") : ""),
    complain("text", text.trim() === "" ? say("badText") : "")];
  if (wrong.includes(true)) {
    element(wrong[0] ? "number" : "text").focus();
    return;
  }
  const button = element("send");
  button.disabled = true;
  button.textContent = say("sending");
  try {
    await demand(SEND_SMS, { number, text });
    state.sent = { number, time: new Date() };
    if (element("text").value === text) element("text").value = "";
  } catch (error) {
    state.sent = error instanceof Refusal ? { refused: error } : { failed: true };
  }
  button.disabled = false;
  button.textContent = say("send");
  show();
}

// ---- notifications

// Resolves to whether it was confirmed.
function confirmed(on) {
  const dialog = element("ask");
  setText("ask-title", say(on ? "askOnTitle" : "askOffTitle"));
  setText("ask-text", say(on ? "askOnText" : "askOffText"));
  setText("ask-yes", say(on ? "switchOn" : "switchOff"));
  dialog.returnValue = "cancel";
  dialog.showModal();
  return new Promise((resolve) => {
    dialog.addEventListener("close", () => resolve(dialog.returnValue === "yes"), { once: true });
  });
}

async function switchNotifications(on) {
  setText("switch-error", "");
  if (!(await confirmed(on))) return;
  try {
    await demand(on ? ON : OFF);
    state.asked = { on, time: Date.now() };
    memory.set("asked", state.asked);
  } catch {
    setText("switch-error", say("notSwitched"));
  }
  show();
}

// ---- start

element("language").addEventListener("change", (event) => {
  memory.set("language", event.target.value);
  setLanguage(event.target.value);
});
element("refresh").addEventListener("click", refresh);
element("send-form").addEventListener("submit", send);
element("text").addEventListener("input", showCounter);
for (const id of ["number", "text"]) element(id).addEventListener("input", () => complain(id, ""));
element("switch-off").addEventListener("click", () => switchNotifications(false));
element("switch-on").addEventListener("click", () => switchNotifications(true));
document.addEventListener("visibilitychange", () => (document.hidden ? clearTimeout(timer) : refresh()));

setLanguage(state.language);
refresh();

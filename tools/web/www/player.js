// The page of lumo-web: the channels and their state, and a player that goes back in time.
"use strict";

const $ = id => document.getElementById(id);
const video = $("video");
const LIVE_EDGE = 10; // seconds: what is nearer to now is the live picture; the slider's step
const POLL_MS = 3000;
const JUMP_MS = 400;
const RETRY_MS = 2000;
const ABSENT_MS = 15000; // each question for what is not there is an error in the daemon's log
const DAY_SEC = 86400;
const STATES = { live: "on air", waiting: "waiting", off: "off air" };

let channels = [], grid = 10, clockSkew = 0;
let watched = null; // the channel's name
let mode = null; // {kind, label, url}
let hls = null, retry = null, jump = null;
let mendedAt = 0; // when the player was last set up anew behind broken media
let fault = ""; // what keeps it from playing
let isAbsent = false; // there is nothing live yet

// Everything the player complained about, and the segment that it plays, for whoever looks into the page.
window.lumoErrors = [];
window.lumoSegment = "";

const now = () => Date.now() / 1000 + clockSkew;
const pad = n => String(n).padStart(2, "0");

// The time of day, with the date where that alone would be read as today's.
function clockText(sec) {
  const at = new Date(sec * 1000), time = at.toLocaleTimeString([], { hourCycle: "h23" });
  const isNear = Math.abs(now() - sec) < DAY_SEC / 2;
  return isNear ? time : `${at.toLocaleDateString([], { month: "short", day: "numeric" })}, ${time}`;
}

function spanText(sec) {
  sec = Math.max(0, Math.round(sec));
  const h = Math.floor(sec / 3600), m = Math.floor(sec / 60) % 60, s = sec % 60;
  if (h >= 48) return `${Math.floor(h / 24)} days`;
  return h ? `${h}:${pad(m)}:${pad(s)}` : `${m}:${pad(s)}`;
}

// --- the list ---

const isLive = channel => channel && channel.state === "live";
const current = () => channels.find(c => c.name === watched);
const held = channel => channel && channel.first ? Math.max(0, channel.last - channel.first) : 0;
// The oldest segments go while one watches, so begin a little behind them.
const oldest = channel => channel && channel.first ? channel.first + 2 * grid : 0;

function fillCard(item, channel, longest) {
  item.className = `state-${channel.state}${channel.name === watched ? " current" : ""}`;
  item.querySelector("a").href = "#" + encodeURIComponent(channel.name);
  item.querySelector("a").ariaCurrent = channel.name === watched ? "page" : null;
  item.querySelector(".name").textContent = channel.name;
  item.querySelector(".state").textContent = STATES[channel.state] || channel.state;
  item.querySelector(".strip i").style.width = `${longest ? 100 * held(channel) / longest : 0}%`;
  item.querySelector(".held").textContent = channel.first
    ? `${spanText(held(channel))} recorded, since ${clockText(channel.first)}` : "nothing recorded";
}

function showList() {
  const list = $("channels"), longest = Math.max(...channels.map(held), 1);
  while (list.children.length > channels.length) list.lastChild.remove();
  while (list.children.length < channels.length) list.append($("card").content.cloneNode(true));
  channels.forEach((channel, i) => fillCard(list.children[i], channel, longest));
  $("empty").hidden = channels.length > 0;
  $("summary").textContent = channels.length ? `${channels.filter(isLive).length} of ${channels.length} on air` : "";
}

async function poll() {
  try {
    const answer = await (await fetch("channels.json", { cache: "no-store" })).json();
    channels = answer.channels;
    grid = answer.grid;
    clockSkew = answer.now - Date.now() / 1000;
    showList();
    showTimeline();
    if (isAbsent && oldest(current()) && current().state !== "off") load(mode.url);
  } catch {
    $("summary").textContent = "the server does not answer";
  }
}

// --- the player ---

function say(text) {
  fault = text;
  showMessage();
}

function showMessage() {
  const isOff = watched && (!current() || current().state === "off");
  const text = fault || (isOff ? "This channel has no producer at the moment." : "");
  if ($("message").textContent !== text) $("message").textContent = text;
  $("message").hidden = !text;
}

function stopPlayer() {
  clearTimeout(retry);
  isAbsent = false;
  if (hls) hls.destroy();
  hls = null;
  video.removeAttribute("src");
}

function onHlsError(_event, data) {
  window.lumoErrors.push({ type: data.type, details: data.details, fatal: data.fatal, at: Date.now(),
    reason: String(data.reason || (data.error && data.error.message) || "") });
  if (!data.fatal) return;
  const code = data.response && data.response.code;
  if (data.type === "mediaError" && Date.now() - mendedAt > RETRY_MS) {
    mendedAt = Date.now();
    hls.recoverMediaError();
  } else if (code === 404 && mode.next) {
    mode.next();
  } else {
    onFailure(code);
  }
}

function onFailure(code) {
  const isPast = code === 404 && mode.kind !== "live"; // which does not come back by itself
  say(isPast ? "Nothing of that time is there."
    : code === 404 ? current() ? "Nothing is on the air; waiting for it." : "There is no such channel; waiting for it."
    : code === 429 ? "Too many events are watched from your address; trying again."
    : "The stream is interrupted; trying again.");
  clearTimeout(retry);
  isAbsent = code === 404 && !isPast;
  if (!isPast) retry = setTimeout(() => load(mode.url), isAbsent ? ABSENT_MS : RETRY_MS);
}

function load(url) {
  stopPlayer();
  if (window.Hls && Hls.isSupported()) {
    hls = new Hls({ backBufferLength: 60, liveDurationInfinity: true });
    hls.on(Hls.Events.ERROR, onHlsError);
    hls.on(Hls.Events.FRAG_BUFFERED, () => say(""));
    hls.on(Hls.Events.FRAG_CHANGED, (_event, data) => { window.lumoSegment = data.frag.relurl; });
    hls.loadSource(url);
    hls.attachMedia(video);
  } else if (video.canPlayType("application/vnd.apple.mpegurl")) {
    video.src = url;
  } else {
    say("This browser cannot play the stream: the player's library is not installed on the server.");
    return;
  }
  video.play().catch(() => {}); // a browser that wants a click first shows its button
}

function play(kind, label, file) {
  clearTimeout(jump);
  mode = { kind, label, url: `${encodeURIComponent(watched)}/${file}` };
  say("");
  load(mode.url);
  $("badge").textContent = label;
  $("badge").className = `badge ${kind}`;
  showTimeline();
}

function playLive() {
  $("slider").value = 0;
  play("live", "live", "live.m3u8");
}

function playBack(sec) {
  sec = Math.round(sec);
  if (sec < LIVE_EDGE) return playLive();
  if (now() - sec < oldest(current())) return playBeginning(oldest(current()));
  $("slider").value = -sec;
  play("shift", `${spanText(sec)} behind`, `shift.m3u8?back=${sec}`);
}

// Every jump is an event of its own to the server: those that follow each other closely are one.
function jumpBack(sec) {
  $("slider").value = -sec;
  showChosen();
  clearTimeout(jump);
  jump = setTimeout(() => playBack(-Number($("slider").value)), JUMP_MS);
}

function playEvent(start, duration) {
  const file = `event.m3u8?start=${Math.floor(start)}` + (duration ? `&duration=${Math.round(duration)}` : "");
  $("slider").value = Math.min(0, start - now());
  play("event", `from ${clockText(start)}`, file);
}

// Further behind where the list told of more than is there.
function playBeginning(start, tries = 8) {
  playEvent(start);
  if (tries > 0) mode.next = () => playBeginning(start + 2 * grid, tries - 1);
}

function showTimeline() {
  const channel = current();
  if (!watched) return;
  const steps = channel && channel.first ? Math.ceil((now() - channel.first) / LIVE_EDGE) : 1;
  $("slider").min = -LIVE_EDGE * Math.max(steps, 1);
  $("oldest").textContent = channel && channel.first ? clockText(channel.first) : "";
  $("beginning").disabled = !oldest(channel);
  showChosen();
  showMessage();
}

function showChosen() {
  const back = -Number($("slider").value);
  const text = back < LIVE_EDGE ? "live" : `${spanText(back)} back, ${clockText(now() - back)}`;
  $("chosen").textContent = $("slider").ariaValueText = text;
}

// The picture's own time is known when the playlist tells it.
function showClock() {
  const date = hls && hls.playingDate;
  $("clock").textContent = date ? clockText(date.getTime() / 1000) : "";
}

function nameInUrl() {
  try {
    return decodeURIComponent(location.hash.slice(1));
  } catch {
    return "";
  }
}

function open() {
  const name = nameInUrl();
  if (name === (watched || "")) return;
  watched = name || null;
  $("player").hidden = !watched;
  document.querySelector("main").classList.toggle("watching", Boolean(watched));
  document.title = watched ? `${watched} – lumo` : "lumo";
  showList();
  clearTimeout(jump);
  if (!watched) return stopPlayer();
  $("title").textContent = watched;
  const start = new Date(Math.max(now() - 600, oldest(current()) + 60) * 1000); // in whole minutes
  start.setMinutes(start.getMinutes() - start.getTimezoneOffset(), 0, 0);
  $("from").value = start.toISOString().slice(0, 19);
  playLive();
}

$("slider").addEventListener("input", showChosen);
$("slider").addEventListener("change", () => jumpBack(-Number($("slider").value)));
$("live").addEventListener("click", playLive);
$("back30").addEventListener("click", () => jumpBack(30 - Number($("slider").value)));
$("back300").addEventListener("click", () => jumpBack(300 - Number($("slider").value)));
$("beginning").addEventListener("click", () => playBeginning(oldest(current())));
$("event").addEventListener("submit", event => {
  event.preventDefault();
  const asked = new Date($("from").value).getTime() / 1000, duration = 60 * Number($("minutes").value);
  const missing = Math.max(0, oldest(current()) - asked);
  if (!duration || duration > missing) playEvent(asked + missing, duration && duration - missing);
  else playEvent(asked, duration);
});
video.addEventListener("playing", () => say(""));
video.addEventListener("error", () => { if (!hls && watched) onFailure(); });
window.addEventListener("hashchange", open);
setInterval(poll, POLL_MS);
setInterval(showClock, 250);
poll().then(open);

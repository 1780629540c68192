// The page of lumo-web: the channels and their state, and a player that goes back in time.
"use strict";

const $ = id => document.getElementById(id);
const video = $("video");
const LIVE_EDGE = 10; // seconds: what is nearer to now is the live picture
const POLL_MS = 3000;
const STATES = { live: "on air", waiting: "waiting", off: "off air" };

let channels = [], grid = 10, clockSkew = 0;
let watched = null; // the channel's name
let mode = null; // {kind, label, url}
let hls = null, retry = null;

// Everything the player complained about, and the segment that it plays, for whoever looks into the page.
window.lumoErrors = [];
window.lumoSegment = "";

const now = () => Date.now() / 1000 + clockSkew;
const pad = n => String(n).padStart(2, "0");
const clockText = sec => new Date(sec * 1000).toLocaleTimeString([], { hourCycle: "h23" });

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

function fillCard(item, channel, longest) {
  item.className = `state-${channel.state}${channel.name === watched ? " current" : ""}`;
  item.querySelector("a").href = "#" + encodeURIComponent(channel.name);
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
  } catch {
    $("summary").textContent = "the server does not answer";
  }
}

// --- the player ---

function say(text) {
  $("message").textContent = text;
  $("message").hidden = !text;
}

function stopPlayer() {
  clearTimeout(retry);
  if (hls) hls.destroy();
  hls = null;
  video.removeAttribute("src");
}

function onHlsError(_event, data) {
  window.lumoErrors.push({ type: data.type, details: data.details, fatal: data.fatal, at: Date.now(),
    reason: String(data.reason || (data.error && data.error.message) || "") });
  if (!data.fatal) return;
  const code = data.response && data.response.code;
  if (data.type === "mediaError") {
    hls.recoverMediaError();
    return;
  }
  if (code === 404 && mode.next) {
    mode.next();
    return;
  }
  say(code === 404 ? "Nothing of that time is there." : code === 429 ? "Too many events are watched from here."
    : "The stream is interrupted; trying again.");
  // What belongs to the past does not come back by itself.
  if (mode.kind === "live" || code !== 404) retry = setTimeout(() => load(mode.url), 2000);
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
  $("slider").value = -sec;
  play("shift", `${spanText(sec)} behind`, `shift.m3u8?back=${sec}`);
}

function playEvent(start, duration) {
  const file = `event.m3u8?start=${Math.floor(start)}` + (duration ? `&duration=${Math.round(duration)}` : "");
  $("slider").value = Math.min(0, start - now());
  play("event", `from ${clockText(start)}`, file);
}

// The oldest segments go while one watches, so begin a little behind them; further behind where the list told of
// more than is there.
function playBeginning(start, tries = 8) {
  playEvent(start);
  if (tries > 0) mode.next = () => playBeginning(start + 2 * grid, tries - 1);
}

function showTimeline() {
  const channel = current();
  if (!watched) return;
  const span = channel && channel.first ? Math.max(60, now() - channel.first - grid) : 60;
  $("slider").min = -Math.floor(span);
  $("oldest").textContent = channel && channel.first ? clockText(channel.first) : "";
  showChosen();
  if (!channel || channel.state === "off")
    say("This channel has no producer at the moment.");
}

function showChosen() {
  const back = -Number($("slider").value);
  $("chosen").textContent = back < LIVE_EDGE ? "live" : `${spanText(back)} back, ${clockText(now() - back)}`;
}

// The picture's own time is known when the playlist tells it.
function showClock() {
  const date = hls && hls.playingDate;
  $("clock").textContent = date ? clockText(date.getTime() / 1000) : "";
}

function open() {
  const name = decodeURIComponent(location.hash.slice(1));
  if (name === (watched || "")) return;
  watched = name || null;
  $("player").hidden = !watched;
  document.querySelector("main").classList.toggle("watching", Boolean(watched));
  document.title = watched ? `${watched} – lumo` : "lumo";
  showList();
  if (!watched) return stopPlayer();
  $("title").textContent = watched;
  const start = new Date((now() - 600) * 1000);
  start.setMinutes(start.getMinutes() - start.getTimezoneOffset(), 0, 0);
  $("from").value = start.toISOString().slice(0, 19);
  playLive();
}

$("slider").addEventListener("input", showChosen);
$("slider").addEventListener("change", () => playBack(-Number($("slider").value)));
$("live").addEventListener("click", playLive);
$("back30").addEventListener("click", () => playBack(30 - Number($("slider").value)));
$("back300").addEventListener("click", () => playBack(300 - Number($("slider").value)));
$("beginning").addEventListener("click", () => {
  const channel = current();
  if (channel && channel.first) playBeginning(channel.first + 2 * grid);
});
$("event").addEventListener("submit", event => {
  event.preventDefault();
  playEvent(new Date($("from").value).getTime() / 1000, 60 * Number($("minutes").value));
});
window.addEventListener("hashchange", open);
setInterval(poll, POLL_MS);
setInterval(showClock, 250);
poll().then(open);

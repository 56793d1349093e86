// Keeps the page in step with the device.

import {$, keepToken, on, say, token} from "./desk.js";
import {loadMethods} from "./form.js";
import {look} from "./trace.js";
import {lookAround} from "./device.js";

let isBusy = false, isLost = true, refused, known, seen;

function takeToken() {
  const [, given] = location.hash.match(/^#token=(.+)/) ?? [];
  if (!given) return;
  keepToken(given);
  history.replaceState(null, "", "/");
}

async function update(used) {
  if (isLost) await loadMethods();
  const last = await look(used !== known);
  known = used;
  if (isLost || seen !== last) await lookAround();
  seen = last;
  if (isLost) say("The desk device answers.");
  isLost = false;
  $("token-form").hidden = true;
}

/** Sends no token again that was refused. */
async function tick() {
  const used = token();
  if (isBusy || document.hidden || used === refused) return;
  isBusy = true;
  try {
    await update(used);
  } catch (problem) {
    say(problem.message);
    isLost = true;
    if (problem.status === 401) refused = used;
    $("token-form").hidden = used !== refused;
  }
  isBusy = false;
}

on("token-form", "submit", event => {
  event.preventDefault();
  keepToken($("token").value);
  return tick();
});

addEventListener("hashchange", takeToken);
setInterval(tick, 1000);
takeToken();
tick();

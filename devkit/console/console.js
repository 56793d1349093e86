// Keeps the page in step with the device.

import {$, keepToken, on, say, token} from "./desk.js";
import {loadMethods} from "./form.js";
import {forget, look} from "./trace.js";
import {lookAround} from "./device.js";

let isBusy = false, isLost = true, refused;

function takeToken() {
  const [, given] = location.hash.match(/^#token=(.+)/) ?? [];
  if (!given) return;
  keepToken(given);
  history.replaceState(null, "", "/");
}

async function update() {
  if (isLost) await loadMethods();
  await look();
  await lookAround();
  if (isLost) say("The desk device answers.");
  isLost = false;
}

/** Sends no token again that was refused. */
async function tick() {
  const used = token();
  if (isBusy || document.hidden || used === refused) return;
  isBusy = true;
  try {
    await update();
  } catch (problem) {
    say(problem.message);
    isLost = true;
    if (problem.status === 401) {
      refused = used;
      forget();
    }
  }
  $("token-form").hidden = used !== refused;
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

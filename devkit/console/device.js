// Files and the control server of the device.

import {$, ask, askAll, fill, make, on, option, say} from "./desk.js";

let path, read, stored = "";  // as an editor shows what was read

const isDirty = () => $("file-text").value !== stored;
const mark = () => { $("file-dirty").hidden = !isDirty(); };

function edit(name, text) {
  path = name;
  $("file").disabled = name === undefined;
  $("file-name").textContent = name ?? "No file is open";
  $("file-text").value = text;
  stored = $("file-text").value;
  read = text;
  mark();
}

const makeFile = ({path, size, mode}) =>
  make("li", {}, make("button", {data: {path}}, path), make("small", {}, `${size} bytes, ${mode}`));

/** Opens a file, or none. What is typed meanwhile stays. */
async function open(name) {
  const text = name ? (await ask("read_file", {path: name})).text : "";
  if (!isDirty() && (name !== path || text !== read)) edit(name, text);
}

/** Shows how the device now stands; an open file too, unless it was edited. */
export async function lookAround() {
  const [files, state, script] = await askAll(["files"], ["control_state"], ["control_script"]);
  fill($("files"), files, makeFile);
  const known = ["accounts", "devices", "aliases"].flatMap(kind => Object.entries(state[kind] ?? {}).map(
    ([name, entry]) => [kind, name, entry?.id, entry?.server_id, entry?.account, entry?.device].join(" ")));
  fill($("control-state"), known, text => make("li", {}, text));
  $("control-script").textContent = JSON.stringify(script);
  if (path && !isDirty()) await open(files.find(file => file.path === path)?.path);
}

async function destroy(what, ...call) {
  if (!confirm(`Destroy ${what}, and have it as on a new device?`)) return;
  await ask(...call);
  edit(path, $("file-text").value);
  await lookAround();
  say("It is as on a new device.");
}

on("file-text", "input", mark);
addEventListener("beforeunload", event => { if (isDirty()) event.preventDefault(); });

on("files", "click", async ({target: {dataset}}) => {
  if (!dataset.path || (isDirty() && !confirm(`What you changed in ${path} is not saved. Lose it?`))) return;
  edit(path, stored);
  await open(dataset.path);
  $("file-text").focus();
});

on("file-save", "click", async () => {
  const text = $("file-text").value;
  const now = await ask("read_file", {path}).catch(() => ({}));
  if (now.text !== read && !confirm(`${path} has changed meanwhile. Destroy that?`)) return;
  await ask("write_file", {path, text});
  read = stored = text;
  mark();
  await lookAround();
  say(`Saved ${path}.`);
});

on("file-reset", "click", () => destroy(`what ${path} holds`, "reset_file", {path}));
on("reset-all", "click", () => destroy("all files, faults and what the control server knows", "reset"));

const presets = {
  "not at all": [],
  "wait 5 s, then serve": [{delay_ms: 5000}],
  "status 503": [{status: 503}],
  "break off": [{text: "{\"serverID\": 1}", cut: true}],
  "answer no JSON": [{text: "<html>"}],
  "busy twice, then well": [{error: 102, times: 2}],
  "key has expired": [{error: 111}],
};

fill($("control-presets"), Object.keys(presets), option);
on("control-apply", "click", async () => {
  await ask("set_control_script", {script: presets[$("control-presets").value]});
  await lookAround();
  say("Done.");
});

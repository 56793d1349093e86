// The form that calls a method, made from the description.

import {$, description, discover, envelope, fill, make, on, option, post, say, token} from "./desk.js";
import {enter} from "./trace.js";

const described = () => description.methods.find(({name}) => name === $("method").value);
const params = () => described().params;

function makeField({name, schema, required, description}) {
  const id = `param-${name}`;
  const values = required ? ["true", "false"] : ["", "true", "false"];
  const control = schema.type === "boolean"
    ? make("select", {id}, ...values.map(option))
    : make("input", {id, autocomplete: "off", value: schema.type === "array" ? "[]" : ""});
  const label = make("label", {htmlFor: id}, required ? name : `${name} (optional)`, make("small", {}, description));
  return make("div", {}, label, control);
}

const isAdmin = () => $("as").value === "admin";
const request = () => envelope($("method").value, $("raw").value);

function showCurl() {
  const right = isAdmin() ? `-H 'Authorization: Bearer ${token()}' ` : "";
  const body = request().replaceAll("'", "'\\''");
  $("curl").textContent = `curl ${location.origin}/rpc -H 'Content-Type: application/json' ${right}-d '${body}'`;
}

/** An empty control leaves its parameter out. */
function writeRaw() {
  const members = [];
  for (const {name, schema} of params()) {
    const {value} = $(`param-${name}`);
    if (value) members.push(`"${name}": ${schema.type === "string" ? JSON.stringify(value) : value}`);
  }
  $("raw").value = `{${members.join(", ")}}`;
}

function showMethod() {
  $("summary").textContent = described().summary;
  $("form").replaceChildren(...params().map(makeField));
  writeRaw();
}

/** Offers the methods that are served. */
export async function loadMethods() {
  await discover();
  const names = description.methods.map(({name}) => name).filter(name => name.includes("/"));
  const chosen = $("method").value;
  fill($("method"), names, option);
  if ($("method").value !== chosen) showMethod();
  showCurl();
}

function react({target}) {
  if (target.id === "method") showMethod();
  if ($("form").contains(target)) writeRaw();
  showCurl();
}

on("call-form", "input", react);
on("call-form", "change", react);
on("call-form", "submit", async event => {
  event.preventDefault();
  say("Calling…");
  await enter($("method").value, await post(request(), isAdmin()));
  say("");
});
on("copy-curl", "click", async () => {
  getSelection().selectAllChildren($("curl"));
  await navigator.clipboard.writeText($("curl").textContent);
  say("Copied.");
});

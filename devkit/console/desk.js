// Requests to the desk device, and what the page says about them.

export const $ = id => document.getElementById(id);

export function make(tag, {data, ...properties}, ...children) {
  const element = Object.assign(document.createElement(tag), properties);
  Object.assign(element.dataset, data);
  element.append(...children);
  return element;
}

export const option = name => make("option", {}, name);

/** Replaces a list's items when `data` changed, and keeps the focus. */
export function fill(list, data, makeItem) {
  const text = JSON.stringify(data);
  if (list.data === text) return;
  list.data = text;
  const name = button => button.ariaLabel ?? button.textContent;
  const focused = list.contains(document.activeElement) && name(document.activeElement);
  list.replaceChildren(...data.map(makeItem));
  if (focused) ([...list.querySelectorAll("button")].find(button => name(button) === focused) ?? list).focus();
}

export function say(text) {
  if ($("status").textContent !== text) $("status").textContent = text;
}

/** `work`, with what went wrong said in the page. */
export const attempt = work => async event => {
  try {
    await work(event);
  } catch (problem) {
    say(problem.message);
  }
};

export const on = (id, type, work) => $(id).addEventListener(type, attempt(work));

/** What to do, where the refusal does not tell. */
const advice = {
  0: "Start it with script/server.",
  401: "Each start makes a new one: open the address that serve prints, or enter what desk/admin-token holds.",
};

function refuse(status, text = "The desk device does not answer") {
  throw Object.assign(new Error(`${text.trim()}. ${advice[status] ?? ""}`), {status});
}

export const token = () => sessionStorage.getItem("token") ?? "";
export const keepToken = text => sessionStorage.setItem("token", text.replace(/[^!-~]/g, ""));

export const envelope = (method, params) =>
  `{"jsonrpc": "2.0", "id": 1, "method": ${JSON.stringify(method)}, "params": ${params}}`;

/** Sends `body` as it stands. Gives the answer and the call's number in the trace, else 0. */
export async function post(body, isAdmin) {
  const headers = {"Content-Type": "application/json"};
  if (isAdmin) headers.Authorization = `Bearer ${token()}`;
  const response = await fetch("/rpc", {method: "POST", headers, body}).catch(() => refuse(0));
  const text = await response.text().catch(() => refuse(0));
  if (!response.ok) refuse(response.status, text);
  return {answer: JSON.parse(text), number: Number(response.headers.get("Desk-Call"))};
}

function resultOf({error, result}) {
  if (error) throw new Error(error.data.problem ?? `${error.message}. ${error.data.remedy}`);
  return result;
}

/** The results of desk methods, each given as [name, params], from one request. */
export async function askAll(...calls) {
  const bodies = calls.map(([name, params = {}]) => envelope(`desk.${name}`, JSON.stringify(params)));
  return (await post(`[${bodies}]`, true)).answer.map(resultOf);
}

export const ask = async (...call) => (await askAll(call))[0];

export let description;

export async function discover() {
  description = resultOf((await post(envelope("rpc.discover", "{}"))).answer);
}

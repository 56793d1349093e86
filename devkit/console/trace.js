// The device's calls: their answers and traces.

import {$, ask, askAll, attempt, description, fill, make, on, option, say} from "./desk.js";

const mostRows = 500;
const mostCalls = 100;
const mostAnswers = 30;  // hold all lines that the device keeps

let calls = new Map();
let latest, shown, failing, operations, after = 0, drawn = 0, isFollowing = true;

/** The answer; that to somebody else is found in the trace. */
function answerOf({answer, lines}) {
  if (answer) return answer;
  const {op = "", args: [value] = ["no answer"]} =
    lines.findLast(({op, result}) => op.startsWith("APIResponse::") && result) ?? {};
  return op.endsWith("Success") ? {result: value} : {error: description.components.errors[value] ?? {code: value}};
}

function drawAnswer(call) {
  const {error, result} = answerOf(call);
  const log = call.lines.filter(({op}) => op === "syslog").map(({args}) => args[1]);
  const terms = ["problem", "cause", "remedy"].filter(name => error?.data?.[name]).flatMap(name =>
    [make("dt", {}, name), make("dd", {className: name}, error.data[name])]);
  $("answer").replaceChildren(
    make("p", {}, `${call.method}: `, make("b", {className: "code"}, error?.code ?? "success"), ` ${error?.message ?? ""}`),
    error ? make("dl", {}, ...terms) : make("pre", {className: "result"}, JSON.stringify(result, null, 2)),
    make("ul", {className: "log"}, ...(error?.data?.log ?? log).map(line => make("li", {}, line))));
}

function makeRow({op, us, from, args, out, result, thrown, problem, fault}, total) {
  const text = value => JSON.stringify(value);
  const bar = make("i", {className: "bar"});
  bar.style.left = `${100 * from / total}%`;
  bar.style.width = `${100 * us / total}%`;
  return make("li", {className: fault ? "op injected" : "op", data: {op}}, make("b", {}, op),
    make("code", {}, ` (${args.map(text).join(", ")}) → ${thrown ? "exception" : text(result)}`),
    make("small", {}, `+${from} µs, ${us} µs ${out ? `outputs ${text(out)}` : ""} ${problem ?? ""}`),
    fault ? make("mark", {}, `injected: ${fault}`) : "",
    make("button", {className: "fail", ariaLabel: `make this fail: ${op}`, disabled: !operations.has(op),
      onclick: () => openDialog(op)}, "make this fail"), bar);
}

function drawTrace({lines}) {
  const total = Math.max(1, ...lines.map(({from, us}) => from + us));
  const hidden = Math.max(0, lines.length - mostRows);
  $("trace-note").textContent = `${lines.length} lines` + (hidden ? `, the first ${hidden} left out` : "");
  $("trace").replaceChildren(...lines.slice(hidden).map(line => makeRow(line, total)));
}

function show(call) {
  if (shown) shown.button.ariaCurrent = null;
  call.button.ariaCurrent = "true";
  shown = call;
  drawAnswer(call);
  drawTrace(call);
}

function read(call) {
  isFollowing = call === latest;
  show(call);
}

function makeCall(number, method) {
  const call = {number, method, lines: []};
  call.button = make("button", {onclick: () => read(call)}, `${number || "–"} ${method}`);
  calls.set(number || Symbol(), call);
  $("history").prepend(make("li", {}, call.button));
  if ($("history").children.length > mostCalls) {
    $("history").lastChild.remove();
    calls.delete(calls.keys().next().value);
  }
  return call;
}

const callOf = (number, method) => calls.get(number) ?? makeCall(number, method);

/** Shows an answered call, and its trace where that can be had. */
export async function enter(method, {answer, number}) {
  try {
    await look();
  } finally {
    latest = callOf(number, method);
    latest.answer = answer;
    read(latest);
  }
}

/** Begins with the first line again. */
export function forget() {
  after = drawn = 0;
  calls = new Map();
  $("history").replaceChildren();
}

function take({lines, next}) {
  if (next < after) return forget();
  after = next;
  for (const line of lines) {
    latest = callOf(line.call, line.method);
    latest.lines.push(line);
  }
}

const makeFault = ({id, fault, met}) => make("li", {}, make("code", {}, fault), ` met ${met} `,
  make("button", {className: "remove", ariaLabel: `remove ${fault}`, onclick: attempt(() => change("remove_fault", {id}))},
    "remove"));

/** Shows a new call once it is whole, unless an older one is read. */
async function lookNow() {
  operations ??= new Map((await ask("operations")).map(({operation, kinds}) => [operation, kinds]));
  for (let answers = 0; answers < mostAnswers; ++answers) {
    const [trace, faults] = await askAll(["trace", {after}], ["faults"]);
    take(trace);
    fill($("faults"), faults, makeFault);
    if (trace.lines.length) continue;
    const follows = isFollowing && !$("trace").contains(document.activeElement) && !$("fail-dialog").open;
    if (after > drawn && follows) show(latest);
    drawn = after;
    break;
  }
}

let looking = Promise.resolve();

/** Shows what is new, after any look under way. */
export const look = () => looking = looking.catch(() => {}).then(lookNow);

async function change(...call) {
  await ask(...call);
  await look();
  say("Done.");
}

function openDialog(op) {
  failing = op;
  $("fail-title").textContent = `Make ${op} fail`;
  fill($("fail-kind"), operations.get(op), option);
  $("fail-dialog").returnValue = "";
  $("fail-dialog").showModal();
}

on("fail-dialog", "close", async ({target}) => {
  if (!target.returnValue) return;
  const place = {once: "@1", always: "", nth: `@${$("fail-n").value}`}[$("fail-when").value];
  await change("add_fault", {fault: `${failing}=${$("fail-kind").value}${place}`});
  $("faults").focus();  // new calls do not take it away there
});
on("clear-faults", "click", () => change("clear_faults"));

// The console in a real browser, with real clicks and keys, against a served device.
import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtemp, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { expect, test as base } from "@playwright/test";
import axe from "axe-core";

const api = "VEXA.Core.TunnelBridge";
const conf = "/usr/vexa/etc/vexarelayd/vexarelayd.conf";

class Desk {
  constructor(root) {
    this.root = root;
  }

  async serve(port = "0") {
    this.program = spawn(process.env.WEBAPI_HOST, ["serve", "--root", this.root, "--port", port]);
    let said = "";
    for await (const text of this.program.stderr.iterator({ destroyOnReturn: false })) {
      said += text;
      if (said.includes("Ctrl-C ends it.")) break;
    }
    [, this.address, this.port, this.token] = said.match(/(http:\/\/127\.0\.0\.1:(\d+)\/)#token=(\w+)/);
  }

  async end() {
    if (this.program.exitCode !== null) return;
    this.program.kill();
    await once(this.program, "exit");
  }
}

class Console {
  dialogs = [];
  complaints = [];

  constructor(page, desk) {
    Object.assign(this, { page, desk });
    page.on("dialog", (dialog) => (this.dialogs.push(dialog.message()), dialog.accept()));
    page.on("console", (message) => this.complaints.push(message.text()));
    page.on("pageerror", (problem) => this.complaints.push(problem.message));
    page.on("request", (request) => {
      if (!/^(http:\/\/127\.0\.0\.1:|data:)/.test(request.url())) this.complaints.push(`request to ${request.url()}`);
    });
  }

  at = (selector) => this.page.locator(selector);
  file = (path) => this.at(`#files [data-path="${path}"]`);

  async open() {
    await this.page.goto(`${this.desk.address}#token=${this.desk.token}`);
    await expect(this.file(conf)).toBeVisible();
  }

  /** Makes the chosen call, waits until its answer and its trace are shown, and gives the code. */
  async call() {
    const answer = this.page.waitForResponse((response) => response.headers()["desk-call"]);
    await this.at("#call").click();
    const number = (await answer).headers()["desk-call"];
    await expect(this.at("#history [aria-current]")).toHaveText(new RegExp(`^${number} `));
    await expect(this.at("#trace [data-op^=APIResponse]")).toHaveCount(1);
    return this.at("#answer .code").innerText();
  }

  async callMethod(method, params = {}) {
    await this.at("#method").selectOption(`${api}/${method}`);
    for (const [name, value] of Object.entries(params)) {
      const field = this.at(`#param-${name}`);
      await (typeof value === "boolean" ? field.selectOption(String(value)) : field.fill(value));
    }
    return this.call();
  }

  get = () => this.callMethod("2/get");
  set = (enabled) => this.callMethod("2/set", { enabled });
  setAlias = () => this.callMethod("2/set_server_alias", { server_alias: "lab" });
}

const test = base.extend({
  desk: async ({}, use) => {
    const folder = await mkdtemp(join(tmpdir(), "desk-browser-"));
    const desk = new Desk(join(folder, "root"));
    await desk.serve();
    await use(desk);
    await desk.end();
    await rm(folder, { recursive: true });
  },
  tab: async ({ page, desk }, use) => {
    const tab = new Console(page, desk);
    await tab.open();
    await use(tab);
    expect(tab.complaints).toEqual([]);
  },
});

test("registers an alias and switches on, but not for an ordinary user", async ({ tab }) => {
  expect(await tab.setAlias()).toBe("success");
  expect(await tab.set(true)).toBe("success");
  expect(await tab.get()).toBe("success");
  await expect(tab.at("#answer")).toContainText('"enabled": true');
  await expect(tab.at("#control-state")).toContainText("lab");
  await tab.at("#as").selectOption("user");
  expect(await tab.set(true)).toBe("105");
  await expect(tab.at("#answer .remedy")).toContainText("Call as an administrator");
});

test("makes an operation fail from its line of the trace", async ({ tab }) => {
  await tab.setAlias();
  expect(await tab.set(true)).toBe("success");
  await tab.at("#trace [data-op=VLIBServiceStart] .fail").click();
  await tab.at("#fail-kind").selectOption("fail");
  await tab.at("#fail-when").selectOption("once");
  await tab.at("#fail-add").click();
  await expect(tab.at("#faults")).toContainText("VLIBServiceStart=fail@1");
  expect(await tab.set(false)).toBe("success");
  expect(await tab.set(true)).toBe("2900");
  await expect(tab.at("#answer .log")).toContainText("utils:172 call VLIBServiceStart() vexarelayd error");
  await expect(tab.at("#answer .remedy")).not.toBeEmpty();
  await expect(tab.at("#trace .injected[data-op=VLIBServiceStart]")).toBeVisible();
  expect(await tab.set(true), "it failed once").toBe("success");
  await tab.at("#faults .remove").click();
  await expect(tab.at("#faults .remove")).toHaveCount(0);
});

test("shows that a broken file is moved aside, and puts it back", async ({ tab }) => {
  await tab.file(conf).click();
  await tab.at("#file-text").fill("{");
  await expect(tab.at("#file-dirty")).toBeVisible();
  await tab.at("#file-save").click();
  await expect(tab.at("#file-dirty")).toBeHidden();
  expect(await tab.callMethod("1/get")).toBe("2900");
  await expect(tab.file(`${conf}.bad`)).toBeVisible();
  expect(tab.dialogs).toEqual([]);
  await tab.at("#reset-all").click();
  await expect(tab.file(`${conf}.bad`)).toHaveCount(0);
  expect(await tab.call()).toBe("success");
  expect(tab.dialogs).toEqual([expect.stringContaining("Destroy all files, faults and what the control server knows")]);
});

test("shows a file of others as it stands", async ({ desk, tab }) => {
  await writeFile(`${desk.root}/etc/other`, "one\r\ntwo\r\n");
  await tab.file("/etc/other").click();
  await expect(tab.at("#file-text")).toHaveValue("one\ntwo\n");
  await expect(tab.at("#file-dirty")).toBeHidden();
  await tab.at("#file-text").fill("three");
  await tab.at("#file-save").click();
  await expect(tab.at("#file-dirty")).toBeHidden();
  expect(tab.dialogs).toEqual([]);
  await writeFile(`${desk.root}/etc/other`, Buffer.from([0xff]));
  await expect(tab.at("#status")).toContainText("no UTF-8 text");
  expect(await tab.get()).toBe("success");
});

test("says that the server is gone, and takes the next one's token", async ({ page, desk }) => {
  const tab = new Console(page, desk);
  await tab.open();
  await desk.end();
  await expect(tab.at("#status")).toContainText("does not answer");
  await desk.serve(desk.port);
  await expect(tab.at("#status")).toContainText("token");
  await tab.at("#token").fill(desk.token);
  await tab.at("#token-save").click();
  expect(await tab.get()).toBe("success");
  const forgiven = "Failed to load resource"; // what the browser says of requests that the test had refused
  expect(tab.complaints.filter((text) => !text.startsWith(forgiven))).toEqual([]);
});

test("makes a call by the keyboard alone", async ({ page, tab }) => {
  for (let steps = 0; steps < 50 && !(await tab.at("#call:focus").count()); ++steps) await page.keyboard.press("Tab");
  await page.keyboard.press("Enter");
  await expect(tab.at("#answer .code")).toHaveText("success");
});

test("answers within 200 ms after 100,000 lines, and never shows half a call", async ({ page, desk, tab }) => {
  await page.evaluate(() => {
    window.codes = new Set();
    const read = () => window.codes.add(document.querySelector("#answer .code").textContent);
    new MutationObserver(read).observe(document.getElementById("answer"), { childList: true });
    document.getElementById("call").addEventListener("click", () => (window.began = performance.now()));
    const drew = () => (window.took = performance.now() - window.began);
    new MutationObserver(drew).observe(document.getElementById("trace"), { childList: true });
  });
  const headers = { Authorization: `Bearer ${desk.token}` };
  const post = (data) => page.request.post(`${desk.address}rpc`, { headers, data });
  const batch = Array(100).fill({ jsonrpc: "2.0", id: 1, method: `${api}/1/get` });
  const last = { jsonrpc: "2.0", id: 1, method: "desk.trace", params: { after: Number.MAX_SAFE_INTEGER, limit: 1 } };
  let lines = 0;
  let number;
  for (let sent = 0; sent < 200 && lines < 100000; ++sent) {
    number = (await post(batch)).headers()["desk-call"];
    lines = (await (await post(last)).json()).result.next;
  }
  expect(lines).toBeGreaterThanOrEqual(100000);
  await expect(tab.at("#history button").first()).toHaveText(new RegExp(`^${number} `));
  expect(await tab.get()).toBe("success");
  expect(await page.evaluate(() => window.took)).toBeLessThanOrEqual(200);
  expect(await page.evaluate(() => [...window.codes])).toEqual(["success"]);
  expect(await tab.at("#history button").count()).toBeLessThanOrEqual(100);
});

// Leaves screenshots where the environment asks for them.
test("can be read in light and dark, wide and narrow", async ({ page, tab }) => {
  const browser = await page.context().newCDPSession(page);
  await tab.setAlias();
  await tab.at("#as").selectOption("user"); // whose command has no token
  await page.evaluate(axe.source);
  for (const colorScheme of ["light", "dark"]) {
    await page.emulateMedia({ colorScheme });
    for (const width of [1280, 360]) {
      await page.setViewportSize({ width, height: 800 });
      const violations = await page.evaluate(async () => (await window.axe.run()).violations.map(({ id }) => id));
      expect(violations, `${colorScheme} ${width}`).toEqual([]);
      expect(await page.evaluate(() => document.documentElement.scrollWidth)).toBeLessThanOrEqual(width);
      await page.evaluate(() => scrollTo(0, 0));
      if (!process.env.CONSOLE_SCREENSHOTS) continue;
      const { data } = await browser.send("Page.captureScreenshot", { format: "webp", quality: 50 });
      await writeFile(`${process.env.CONSOLE_SCREENSHOTS}/console-${colorScheme}-${width}.webp`, data, "base64");
    }
  }
});

export default {
  reporter: "list",
  timeout: 60000,
  workers: 1,
  expect: { timeout: 10000 },
  use: { launchOptions: { executablePath: "/usr/bin/chromium-headless-shell", args: ["--no-sandbox"] } },
};

// Interoperability test: the official MCP TypeScript SDK client drives the
// built mirel-mcp over stdio on a fresh library in a temporary folder.
//
//   node tests/interop/client.mjs /path/to/mirel-mcp
//
// Prints one line per check and a summary "interop: N passed, M failed";
// exits non-zero on any failure. To add checks, add an async function to
// `suites` below; each gets the context { client, home, binary }.
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";
import { LATEST_PROTOCOL_VERSION } from "@modelcontextprotocol/sdk/types.js";
import assert from "node:assert/strict";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";

const EXPECTED_TOOLS = [
  "list_captures",
  "get_capture",
  "claim_capture",
  "comment_on_capture",
  "resolve_capture",
  "reopen_capture",
  "update_capture",
  "list_groups",
  "capture_stats",
];

let passed = 0;
let failed = 0;

// Runs one named check; an assertion failure is counted, not fatal.
async function check(name, body) {
  try {
    await body();
    passed += 1;
    console.log(`  ok    ${name}`);
  } catch (error) {
    failed += 1;
    console.log(`  FAIL  ${name}\n        ${String(error.message ?? error).split("\n").join("\n        ")}`);
  }
}

function textOf(result) {
  return (result.content ?? []).filter((block) => block.type === "text").map((block) => block.text).join("");
}

const suites = [
  async function handshake({ client, negotiated }) {
    await check("the client asks for a newer version than the server serves", () =>
      assert.notEqual(LATEST_PROTOCOL_VERSION, "2025-06-18"));
    await check("negotiated protocol version is 2025-06-18", () => assert.equal(negotiated(), "2025-06-18"));
    await check("server info", () => assert.deepEqual(client.getServerVersion(), { name: "mirel", version: "1.0.0" }));
    await check("capabilities", () =>
      assert.deepEqual(client.getServerCapabilities(), {
        tools: { listChanged: false },
        resources: { subscribe: false, listChanged: false },
      }));
    await check("instructions", () => {
      const instructions = client.getInstructions();
      assert.equal(typeof instructions, "string");
      assert.ok(instructions.startsWith("Mirel is the user's visual bug board."), instructions.slice(0, 80));
      assert.ok(instructions.endsWith("Do not resolve anything you have not actually fixed."));
    });
    await check("ping", async () => assert.deepEqual(await client.ping(), {}));
  },

  async function tools({ client }) {
    await check("tools/list gives the nine tools in order", async () => {
      const { tools } = await client.listTools();
      assert.deepEqual(tools.map((tool) => tool.name), EXPECTED_TOOLS);
      for (const tool of tools) {
        assert.equal(tool.inputSchema.type, "object", tool.name);
        assert.equal(tool.inputSchema.additionalProperties, false, tool.name);
      }
    });
    await check("capture_stats on an empty board", async () => {
      const result = await client.callTool({ name: "capture_stats", arguments: {} });
      assert.equal(result.isError, false, textOf(result));
      assert.match(textOf(result), /^Open: 0 /);
    });
    await check("list_captures answers with text", async () => {
      const result = await client.callTool({ name: "list_captures", arguments: { limit: 5 } });
      assert.equal(result.isError, false, textOf(result));
      assert.ok(textOf(result).length > 0);
    });
    await check("an unknown tool is a result with isError", async () => {
      const result = await client.callTool({ name: "no_such_tool", arguments: {} });
      assert.equal(result.isError, true);
      assert.equal(textOf(result), "Unknown tool: no_such_tool");
    });
  },

  async function resources({ client }) {
    await check("resources/list on an empty board", async () => {
      const { resources } = await client.listResources();
      assert.deepEqual(resources, []);
    });
  },
];

async function main() {
  const binary = process.argv[2];
  if (!binary || !fs.existsSync(binary)) {
    console.error("usage: node client.mjs /path/to/mirel-mcp");
    process.exit(2);
  }
  const home = fs.mkdtempSync(path.join(os.tmpdir(), "mirel-interop-"));
  const transport = new StdioClientTransport({
    command: binary,
    args: [],
    env: { MIREL_HOME: home },
    stderr: "pipe",
  });
  let log = "";
  transport.stderr?.on("data", (chunk) => (log += chunk));
  // The client reports the version it settled on to transports that want it.
  let negotiatedVersion;
  transport.setProtocolVersion = (version) => (negotiatedVersion = version);

  const client = new Client({ name: "mirel-interop", version: "1.0.0" });
  try {
    await client.connect(transport);
    passed += 1;
    console.log("  ok    connect and initialize");
  } catch (error) {
    failed += 1;
    console.log(`  FAIL  connect and initialize: ${error.message}\n${log}`);
  }

  if (failed === 0) {
    const context = { client, home, binary, negotiated: () => negotiatedVersion };
    for (const suite of suites) {
      console.log(`${suite.name}:`);
      await suite(context);
    }
  }

  // The SDK ends the server's standard input; the server logs and exits 0.
  const child = transport._process;
  await client.close();
  await check("the server exits cleanly when its input closes", async () => {
    if (child && child.exitCode === null) await new Promise((resolve) => child.once("exit", resolve));
    if (child) assert.equal(child.exitCode, 0);
    assert.ok(log.includes(`[mirel-mcp] ready — library at ${path.join(home, "mirel.sqlite")}\n`), log);
    assert.ok(log.endsWith("[mirel-mcp] stdin closed — exiting\n"), log);
  });

  fs.rmSync(home, { recursive: true, force: true });
  console.log(`interop: ${passed} passed, ${failed} failed`);
  process.exit(failed === 0 ? 0 : 1);
}

main().catch((error) => {
  console.error(error);
  process.exit(1);
});

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
import { execFileSync } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import zlib from "node:zlib";

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

  // Defined below (hoisted): its own server on a seeded library.
  screenshots,
];

// ---- A seeded library for the screenshot checks ----
//
// The library is filed through the product's own command line, `mirel add`,
// which the build puts beside mirel-mcp (or MIREL_HOST_BINARY names): that
// keeps this script free of any knowledge of the database schema. The
// screenshot is a PNG written here with node's zlib.

function crc32(bytes) {
  let crc = 0xffffffff;
  for (const byte of bytes) {
    crc ^= byte;
    for (let k = 0; k < 8; k += 1) crc = (crc >>> 1) ^ (0xedb88320 & -(crc & 1));
  }
  return (crc ^ 0xffffffff) >>> 0;
}

function pngChunk(type, data) {
  const head = Buffer.alloc(8);
  head.writeUInt32BE(data.length, 0);
  head.write(type, 4, "latin1");
  const crc = Buffer.alloc(4);
  crc.writeUInt32BE(crc32(Buffer.concat([head.subarray(4), data])), 0);
  return Buffer.concat([head, data, crc]);
}

// An opaque RGB PNG: red left half, blue right half.
function pngFile(width, height) {
  const row = Buffer.alloc(1 + width * 3);
  for (let x = 0; x < width; x += 1) row.set(x < width / 2 ? [255, 0, 0] : [0, 0, 255], 1 + x * 3);
  const raw = Buffer.concat(Array.from({ length: height }, () => row));
  const header = Buffer.alloc(13);
  header.writeUInt32BE(width, 0);
  header.writeUInt32BE(height, 4);
  header.set([8, 2, 0, 0, 0], 8);
  return Buffer.concat([
    Buffer.from([0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]),
    pngChunk("IHDR", header),
    pngChunk("IDAT", zlib.deflateSync(raw)),
    pngChunk("IEND", Buffer.alloc(0)),
  ]);
}

// Width and height of a base64 PNG, from its IHDR chunk.
function pngSize(base64) {
  const bytes = Buffer.from(base64, "base64");
  assert.ok(bytes.length > 24, "too short for a PNG");
  assert.deepEqual([...bytes.subarray(0, 8)], [0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a], "PNG signature");
  assert.equal(bytes.subarray(12, 16).toString("latin1"), "IHDR");
  return [bytes.readUInt32BE(16), bytes.readUInt32BE(20)];
}

// Files one capture with a 1600×800 screenshot into a new library; returns
// the library's folder and the capture's id.
function seedLibrary(binary) {
  const host = process.env.MIREL_HOST_BINARY || path.join(path.dirname(binary), "mirel");
  assert.ok(fs.existsSync(host), `the mirel command line is needed to seed a library; not found at ${host}`);
  const home = fs.mkdtempSync(path.join(os.tmpdir(), "mirel-interop-seeded-"));
  const shot = path.join(home, "shot.png");
  fs.writeFileSync(shot, pngFile(1600, 800));
  const out = execFileSync(host, ["add", shot, "--note", "Save button overlaps the footer", "--app", "Editor"], {
    env: { ...process.env, MIREL_HOME: home },
    encoding: "utf8",
  });
  const id = out.trim().split(/\s+/).find((word) => /^[0-9a-f]{8}-[0-9a-f-]{27}$/.test(word));
  assert.ok(id, `no capture id in the output of mirel add: ${out}`);
  return { home, id };
}

async function screenshots({ binary }) {
  let seeded;
  await check("a library is seeded with one screenshot", () => {
    seeded = seedLibrary(binary);
  });
  if (!seeded) return;
  const transport = new StdioClientTransport({
    command: binary,
    args: [],
    env: { MIREL_HOME: seeded.home },
    stderr: "pipe",
  });
  const client = new Client({ name: "mirel-interop-screenshots", version: "1.0.0" });
  try {
    await client.connect(transport);
    await check("get_capture returns the detail and an image block the SDK accepts", async () => {
      // callTool validates the reply against the SDK's CallToolResult schema.
      const result = await client.callTool({ name: "get_capture", arguments: { id: seeded.id.slice(0, 8) } });
      assert.equal(result.isError, false, textOf(result));
      assert.deepEqual(result.content.map((block) => block.type), ["text", "image"]);
      assert.ok(result.content[0].text.startsWith(`Capture ${seeded.id}\n`), result.content[0].text.slice(0, 80));
      const image = result.content[1];
      assert.deepEqual(Object.keys(image).sort(), ["data", "mimeType", "type"]);
      assert.equal(image.mimeType, "image/png");
      assert.match(image.data, /^[A-Za-z0-9+/]+={0,2}$/);
      assert.deepEqual(pngSize(image.data), [1400, 700]);
    });
    await check("get_capture honours max_image_edge", async () => {
      const result = await client.callTool({ name: "get_capture", arguments: { id: seeded.id, max_image_edge: 400 } });
      assert.deepEqual(pngSize(result.content[1].data), [400, 200]);
    });
    await check("resources/read gives the text and the screenshot as a blob", async () => {
      const uri = `mirel://capture/${seeded.id}`;
      const { resources } = await client.listResources();
      assert.deepEqual(resources.map((resource) => resource.uri), [uri]);
      assert.equal(resources[0].mimeType, "image/png");
      assert.equal(resources[0].description, "Seen in Editor · OPEN");
      const { contents } = await client.readResource({ uri });
      assert.equal(contents.length, 2);
      assert.equal(contents[0].mimeType, "text/plain");
      assert.ok(contents[0].text.startsWith(`Capture ${seeded.id}\n`));
      assert.equal(contents[1].uri, uri);
      assert.equal(contents[1].mimeType, "image/png");
      assert.deepEqual(pngSize(contents[1].blob), [1400, 700]);
    });
    await check("resources/read of an unknown capture is a JSON-RPC error", async () => {
      await assert.rejects(client.readResource({ uri: "mirel://capture/zzz" }), (error) => {
        assert.equal(error.code, -32602);
        assert.match(error.message, /No capture at mirel:\/\/capture\/zzz\./);
        return true;
      });
    });
  } finally {
    await client.close();
    fs.rmSync(seeded.home, { recursive: true, force: true });
  }
}

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

// Interoperability test: the official MCP TypeScript SDK client drives the
// built mirel-mcp over stdio, on a library seeded with one screenshot.
//
//   node tests/interop/client.mjs /path/to/mirel-mcp
//
// Prints one line per check and "interop: N passed, M failed"; exits non-zero
// on any failure. The SDK validates every reply against its own schemas.
import { Client } from "@modelcontextprotocol/sdk/client/index.js";
import { StdioClientTransport } from "@modelcontextprotocol/sdk/client/stdio.js";
import { LATEST_PROTOCOL_VERSION } from "@modelcontextprotocol/sdk/types.js";
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import zlib from "node:zlib";

let passed = 0;
let failed = 0;

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

const textOf = (result) => result.content.filter((block) => block.type === "text").map((block) => block.text).join("");

function pngChunk(type, data) {
  const body = Buffer.concat([Buffer.from(type, "latin1"), data]);
  const out = Buffer.alloc(12 + data.length);
  out.writeUInt32BE(data.length, 0);
  body.copy(out, 4);
  out.writeUInt32BE(zlib.crc32(body), 8 + data.length);
  return out;
}

// An opaque RGB PNG, red left half and blue right half.
function pngFile(width, height) {
  const row = Buffer.alloc(1 + width * 3);
  for (let x = 0; x < width; x += 1) row.set(x < width / 2 ? [255, 0, 0] : [0, 0, 255], 1 + x * 3);
  const header = Buffer.alloc(13);
  header.writeUInt32BE(width, 0);
  header.writeUInt32BE(height, 4);
  header.set([8, 2, 0, 0, 0], 8);
  const raw = Buffer.concat(Array.from({ length: height }, () => row));
  return Buffer.concat([Buffer.from("\x89PNG\r\n\x1a\n", "latin1"), pngChunk("IHDR", header),
    pngChunk("IDAT", zlib.deflateSync(raw)), pngChunk("IEND", Buffer.alloc(0))]);
}

// Width and height of a base64 PNG, from its IHDR chunk.
function pngSize(base64) {
  const bytes = Buffer.from(base64, "base64");
  assert.equal(bytes.subarray(0, 16).toString("latin1"), "\x89PNG\r\n\x1a\n\0\0\0\rIHDR");
  return [bytes.readUInt32BE(16), bytes.readUInt32BE(20)];
}

async function main() {
  const binary = process.argv[2];
  if (!binary || !fs.existsSync(binary)) {
    console.error("usage: node client.mjs /path/to/mirel-mcp");
    process.exit(2);
  }
  // The capture is filed through the product's own command line, built beside mirel-mcp.
  const home = fs.mkdtempSync(path.join(os.tmpdir(), "mirel-interop-"));
  fs.writeFileSync(path.join(home, "shot.png"), pngFile(1600, 800));
  const host = process.env.MIREL_HOST_BINARY || path.join(path.dirname(binary), "mirel");
  const added = execFileSync(host, ["add", path.join(home, "shot.png"), "--note", "Save button overlaps", "--app", "Editor"],
    { env: { ...process.env, MIREL_HOME: home }, encoding: "utf8" });
  const id = added.split(/\s+/).find((word) => /^[0-9a-f]{8}-[0-9a-f-]{27}$/.test(word));

  const transport = new StdioClientTransport({ command: binary, args: [], env: { MIREL_HOME: home }, stderr: "pipe" });
  let log = "";
  transport.stderr?.on("data", (chunk) => (log += chunk));
  let negotiated;
  transport.setProtocolVersion = (version) => (negotiated = version);
  const client = new Client({ name: "mirel-interop", version: "1.0.0" });
  await check("connect and initialize", () => client.connect(transport));
  if (failed > 0) console.log(log);

  await check("handshake: a newer client settles on 2025-06-18; info, capabilities, instructions, ping", async () => {
    assert.notEqual(LATEST_PROTOCOL_VERSION, "2025-06-18");
    assert.equal(negotiated, "2025-06-18");
    assert.deepEqual(client.getServerVersion(), { name: "mirel", version: "1.0.0" });
    assert.deepEqual(client.getServerCapabilities(),
      { tools: { listChanged: false }, resources: { subscribe: false, listChanged: false } });
    assert.match(client.getInstructions(), /^Mirel is the user's visual bug board\.[^]*Do not resolve anything you have not actually fixed\.$/);
    assert.deepEqual(await client.ping(), {});
  });
  await check("tools: nine closed object schemas; an unknown tool is a failed result", async () => {
    const { tools } = await client.listTools();
    assert.equal(tools.length, 9);
    for (const tool of tools) assert.deepEqual([tool.inputSchema.type, tool.inputSchema.additionalProperties], ["object", false]);
    const unknown = await client.callTool({ name: "no_such_tool", arguments: {} });
    assert.deepEqual([unknown.isError, textOf(unknown)], [true, "Unknown tool: no_such_tool"]);
  });
  await check("get_capture: the detail and a PNG block, fitted to max_image_edge", async () => {
    const result = await client.callTool({ name: "get_capture", arguments: { id: id.slice(0, 8) } });
    assert.equal(result.isError, false, textOf(result));
    assert.ok(result.content[0].text.startsWith(`Capture ${id}\n`), result.content[0].text);
    assert.deepEqual(result.content[1], { type: "image", mimeType: "image/png", data: result.content[1].data });
    assert.deepEqual(pngSize(result.content[1].data), [1400, 700]);
    const small = await client.callTool({ name: "get_capture", arguments: { id, max_image_edge: 400 } });
    assert.deepEqual(pngSize(small.content[1].data), [400, 200]);
  });
  await check("resources: listed, read as text and blob; an unknown one is a JSON-RPC error", async () => {
    const uri = `mirel://capture/${id}`;
    const { resources } = await client.listResources();
    assert.deepEqual(resources.map((r) => [r.uri, r.mimeType, r.description]), [[uri, "image/png", "Seen in Editor · OPEN"]]);
    const { contents } = await client.readResource({ uri });
    assert.deepEqual(contents.map((c) => [c.uri, c.mimeType]), [[uri, "text/plain"], [uri, "image/png"]]);
    assert.ok(contents[0].text.startsWith(`Capture ${id}\n`));
    assert.deepEqual(pngSize(contents[1].blob), [1400, 700]);
    await assert.rejects(client.readResource({ uri: "mirel://capture/zzz" }),
      (error) => error.code === -32602 && /No capture at mirel:\/\/capture\/zzz\./.test(error.message));
  });

  // The SDK ends the server's standard input; the server logs and exits 0.
  const child = transport._process;
  await client.close();
  await check("the server exits cleanly when its input closes", async () => {
    if (child.exitCode === null) await new Promise((resolve) => child.once("exit", resolve));
    assert.equal(child.exitCode, 0);
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

#!/usr/bin/env python3
"""Drives mirel-mcp through a short scripted conversation and prints each reply.

Usage: demo_conversation.py PATH_TO_MIREL_MCP   (MIREL_HOME names the library)

Image blocks are summarised by their pixel size and byte count instead of
printing megabytes of base64.
"""
import base64
import json
import re
import struct
import subprocess
import sys


def summarise(value):
    if isinstance(value, dict):
        if value.get("type") == "image" and "data" in value:
            return {"type": "image", "mimeType": value.get("mimeType"), "data": describe_png(value["data"])}
        if "blob" in value:
            return {**{k: summarise(v) for k, v in value.items() if k != "blob"}, "blob": describe_png(value["blob"])}
        return {k: summarise(v) for k, v in value.items()}
    if isinstance(value, list):
        return [summarise(v) for v in value]
    return value


def describe_png(data):
    raw = base64.b64decode(data)
    if raw[:8] == b"\x89PNG\r\n\x1a\n":
        width, height = struct.unpack(">II", raw[16:24])
        return f"<PNG {width}×{height}, {len(raw):,} bytes>"
    return f"<{len(raw):,} bytes>"


def main():
    server = subprocess.Popen([sys.argv[1]], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    next_id = 0

    def send(method, params=None, notify=False, quiet=False):
        nonlocal next_id
        message = {"jsonrpc": "2.0", "method": method}
        if params is not None:
            message["params"] = params
        if not notify:
            message["id"] = next_id
            next_id += 1
        line = json.dumps(message, ensure_ascii=False)
        print(f"\n→ {line}")
        server.stdin.write(line + "\n")
        server.stdin.flush()
        if notify:
            return None
        reply = json.loads(server.stdout.readline())
        if not quiet:
            print("← " + json.dumps(summarise(reply), ensure_ascii=False, indent=2))
        return reply

    send("initialize", {"protocolVersion": "2025-06-18", "capabilities": {},
                        "clientInfo": {"name": "mirel-demo", "version": "1"}})
    send("notifications/initialized", notify=True)
    tools = send("tools/list", quiet=True)
    print("← (nine tool definitions) " + ", ".join(t["name"] for t in tools["result"]["tools"]))
    listing = send("tools/call", {"name": "list_captures", "arguments": {"limit": 10}})
    send("tools/call", {"name": "list_groups", "arguments": {}})
    send("tools/call", {"name": "capture_stats", "arguments": {}})
    text = listing["result"]["content"][0]["text"]
    # Look at the capture with the most screenshots, else the first one.
    entries = re.findall(r"^\[([0-9a-f]{1,8})\].*\n(.*)$", text, re.MULTILINE)
    if entries:
        def screenshots(entry):
            found = re.search(r"(\d+) screenshots", entry[1])
            return int(found.group(1)) if found else 0
        chosen = max(entries, key=screenshots)[0]
        send("tools/call", {"name": "get_capture", "arguments": {"id": chosen, "max_image_edge": 800}})
    send("resources/list")
    server.stdin.close()
    server.wait()
    print(f"\nmirel-mcp exited with status {server.returncode}")


if __name__ == "__main__":
    main()

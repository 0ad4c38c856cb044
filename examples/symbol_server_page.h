// The page of symbol_server at "/": one HTML text without external resources. It asks the same API
// as every client. The part of its address after "#" fills the form in and asks at once:
// #FILE/IDENTIFIER/ADDRESS,ADDRESS.

#pragma once

constexpr char kPage[] = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Symbols</title>
<style>
  :root { color-scheme: light dark; }
  body { font: 16px/1.5 system-ui, sans-serif; max-width: 60rem; margin: 2rem auto; padding: 0 1rem; }
  label { display: block; margin-top: .75rem; font-weight: 600; }
  input, textarea { width: 100%; box-sizing: border-box; font: 15px/1.4 ui-monospace, monospace; padding: .4rem; }
  button { margin: 1rem 0; padding: .5rem 1.25rem; font: inherit; }
  table { border-collapse: collapse; width: 100%; font: 14px/1.4 ui-monospace, monospace; }
  th, td { text-align: left; vertical-align: top; padding: .25rem .5rem; border-bottom: 1px solid #8886; overflow-wrap: anywhere; }
  .inlined td:nth-child(2) { padding-left: 1.5rem; }
  [role=status] { min-height: 1.5em; }
</style>
</head>
<body>
<h1>Symbols</h1>
<form id="form">
  <label for="module">Module (debug file)</label>
  <input id="module" placeholder="a.pdb" required spellcheck="false">
  <label for="identifier">Debug identifier</label>
  <input id="identifier" placeholder="515D2ED965ADFF5D4C4C44205044422E1" required spellcheck="false">
  <label for="addresses">Addresses, hexadecimal, relative to the module</label>
  <textarea id="addresses" rows="5" placeholder="0x1000 0x1004" required spellcheck="false"></textarea>
  <button>Look up</button>
</form>
<p role="status" id="status"></p>
<table id="frames" hidden>
  <thead><tr><th>Address</th><th>Function</th><th>File and line</th></tr></thead>
  <tbody></tbody>
</table>
<script>
"use strict";
const element = id => document.getElementById(id);

// Hexadecimal words as decimal numbers in text, because a number of JavaScript has 53 bits only.
function parseAddresses(text) {
  return text.split(/[\s,]+/).filter(word => word).map(word => {
    const digits = word.replace(/^0x/i, "");
    if (!/^[0-9a-f]{1,16}$/i.test(digits)) throw new Error(`"${word}" is not a hexadecimal address`);
    return BigInt("0x" + digits).toString();
  });
}

function addRow(address, name, position, inlined) {
  const row = element("frames").tBodies[0].insertRow();
  if (inlined) row.className = "inlined";
  for (const text of [address, name, position]) row.insertCell().textContent = text;
}

const positionOf = frame => frame.file ? `${frame.file}:${frame.line || 0}` : "";

function show(result, key) {
  const frames = result.stacks[0];
  element("status").textContent =
    result.found_modules[key] ? `${frames.length} addresses` : "There are no symbols for this module.";
  if (!result.found_modules[key]) return;
  for (const frame of frames) {
    for (const call of frame.inlines || []) addRow(frame.module_offset, call.function + " (inlined)", positionOf(call), true);
    const name = frame.function ? `${frame.function} + ${frame.function_offset}` : "unknown";
    addRow(frame.module_offset, name, positionOf(frame), false);
  }
  element("frames").hidden = false;
}

async function lookUp() {
  element("frames").hidden = true;
  element("frames").tBodies[0].replaceChildren();
  element("status").textContent = "";
  try {
    const file = element("module").value.trim(), identifier = element("identifier").value.trim();
    const stack = parseAddresses(element("addresses").value).map(address => `[0,${address}]`);
    const body = `{"jobs":[{"memoryMap":[${JSON.stringify([file, identifier])}],"stacks":[[${stack}]]}]}`;
    const response = await fetch("/symbolicate/v5", {method: "POST", headers: {"Content-Type": "application/json"}, body});
    const answer = await response.json();
    if (!response.ok) throw new Error(answer.error);
    show(answer.results[0], `${file}/${identifier}`);
  } catch (error) {
    element("status").textContent = error.message;
  }
}

element("form").addEventListener("submit", event => { event.preventDefault(); lookUp(); });
const given = decodeURIComponent(location.hash.slice(1)).split("/");
if (given.length === 3) {
  [element("module").value, element("identifier").value, element("addresses").value] = given;
  lookUp();
}
</script>
</body>
</html>
)html";

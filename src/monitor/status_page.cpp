// The status page served at /. It draws itself from /status.json, again every
// five seconds; every value goes in as text (textContent), never as markup,
// since pool URLs and board names come from outside.
#include "monitor/http_pages.h"

const std::string &StatusPage() {
  static const std::string kPage = R"PAGE(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<link rel="icon" href="data:,">
<title>ombry-miner</title>
<style>
body { font: 14px/1.4 system-ui, sans-serif; margin: 1.5em; background: #15181c; color: #e4e6e8; }
h1 { font-size: 1.3em; margin: 0 0 .2em; }
h2 { font-size: 1.05em; margin: 1.5em 0 .4em; }
#summary, #state { color: #a8adb3; }
table { border-collapse: collapse; }
th, td { padding: .3em .8em; border-bottom: 1px solid #2c3137; text-align: right; white-space: nowrap; }
th { color: #a8adb3; font-weight: 600; }
th.text, td.text { text-align: left; }
.Alive { color: #6fcf7f; } .Sick { color: #e8c15a; } .Dead { color: #ef6b6b; } .Disabled { color: #8b9096; }
tr.active td { background: #1f2a22; }
</style>
</head>
<body>
<h1 id="miner">ombry-miner</h1>
<div id="summary">waiting for the miner...</div>
<h2>Boards</h2>
<table id="boards"><thead><tr>
<th>#</th><th class="text">Model</th><th class="text">Status</th><th>Temp</th><th>VRM</th><th>Clock MHz</th>
<th>Nominal MH/s</th><th>Effective MH/s</th><th>Found</th><th>Accepted</th><th>Rejected</th>
</tr></thead><tbody></tbody></table>
<h2>Pools</h2>
<table id="pools"><thead><tr>
<th class="text"></th><th>#</th><th class="text">URL</th><th class="text">User</th><th class="text">Status</th>
<th>Difficulty</th><th>Accepted</th><th>Rejected</th><th>Reconnects</th>
</tr></thead><tbody></tbody></table>
<p id="state"></p>
<script>
"use strict";
const number = (value, digits, unit) =>
  typeof value === "number" ? value.toFixed(digits) + (unit || "") : "--";

function duration(seconds) {
  const s = Math.floor(seconds), d = Math.floor(s / 86400), h = Math.floor(s / 3600) % 24;
  const m = Math.floor(s / 60) % 60;
  return (d ? d + "d " : "") + (d || h ? h + "h " : "") + m + "m " + (s % 60) + "s";
}

function fill(table, rows) {
  const body = document.createElement("tbody");
  for (const cells of rows) {
    const row = body.insertRow();
    if (cells.rowClass) row.className = cells.rowClass;
    for (const [text, cls] of cells) {
      const cell = row.insertCell();
      cell.textContent = text;
      if (cls) cell.className = cls;
    }
  }
  document.getElementById(table).tBodies[0].replaceWith(body);
}

function render(status) {
  const run = status.SUMMARY[0];
  document.getElementById("miner").textContent = status.Miner;
  document.getElementById("summary").textContent =
    "up " + duration(run.Elapsed) + " \u00b7 " + status.DEVS.length + " board(s) \u00b7 nominal " +
    number(run["Nominal MHS"], 2, " MH/s") + " \u00b7 effective " + number(run["MHS 1m"], 2, " MH/s") +
    " \u00b7 accepted " + run.Accepted + ", rejected " + run.Rejected + ", invalid " + run["Hardware Errors"];
  fill("boards", status.DEVS.map(board => [
    [board.ID], [board.Name, "text"], [board.Status, "text " + board.Status],
    [number(board.Temperature, 1, " \u00b0C")], [number(board["VRM Temperature"], 1, " \u00b0C")],
    [number(board["Clock MHz"], 0) + " / " + number(board["Target MHz"], 0)],
    [number(board["Nominal MHS"], 2)], [number(board["MHS 1m"], 2)],
    [board.Found], [board.Accepted], [board.Rejected]]));
  fill("pools", status.POOLS.map(pool => Object.assign([
    [pool["Stratum Active"] ? "\u25b6 active" : "", "text"], [pool.POOL], [pool.URL, "text"], [pool.User, "text"],
    [pool.Status, "text " + pool.Status], [number(pool.Difficulty, 4)], [pool.Accepted], [pool.Rejected],
    [pool.Reconnects]], { rowClass: pool["Stratum Active"] ? "active" : "" })));
}

async function refresh() {
  const state = document.getElementById("state");
  try {
    const answer = await fetch("status.json", { cache: "no-store" });
    if (!answer.ok) throw new Error("HTTP " + answer.status);
    render(await answer.json());
    state.textContent = "updated " + new Date().toLocaleTimeString() + ", again every 5 s";
  } catch (error) {
    state.textContent = "no answer from the miner (" + error.message + "); trying again";
  }
}
refresh();
setInterval(refresh, 5000);
</script>
</body>
</html>
)PAGE";
  return kPage;
}

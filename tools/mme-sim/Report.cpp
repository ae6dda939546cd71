// The timeline report: JSON document and the self-contained HTML page that
// draws it.
#include "Report.h"

#include "WavFiles.h"

#include <cstdio>
#include <fstream>

namespace mmesim {

namespace {

const char* const kColumns[] = {
    "period",
    "captureWritePos",
    "renderWritePos",
    "mmeReadPos",
    "deviceReadPos",
    "captureDmaPosition",
    "renderDmaPosition",
    "captureTransferOffset",
    "renderTransferOffset",
    "captureServices",
    "renderServices",
    "captureCopied",
    "renderCopied",
    "glitches",
    "overruns",
    "captureDeviation",
    "renderDeviation",
    "exchanged",
    "present",
};

nlohmann::json rowJson(const PeriodRow& r) {
    return nlohmann::json::array(
        {r.period, r.captureWritePos, r.renderWritePos, r.mmeReadPos, r.deviceReadPos,
         r.dmaPosition[0], r.dmaPosition[1], r.transferOffset[0], r.transferOffset[1],
         r.services[0], r.services[1], r.copied[0], r.copied[1], r.glitches, r.overruns,
         r.deviation[0], r.deviation[1], r.exchanged ? 1 : 0, r.present ? 1 : 0});
}

nlohmann::json optionalJson(const std::optional<uint64_t>& v) {
    return v ? nlohmann::json(*v) : nlohmann::json(nullptr);
}

// The page: style, the summary table, the SVG and the script that fills
// them from the embedded JSON. The script is the only code; it fetches nothing.
const char kPageHead[] = R"HTML(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>mme-sim timeline</title>
<style>
body { font: 13px/1.4 system-ui, sans-serif; margin: 16px; color: #222; background: #fff; }
h1 { font-size: 18px; margin: 0 0 8px; }
table#summary { border-collapse: collapse; margin-bottom: 10px; }
#summary th, #summary td { border: 1px solid #ccc; padding: 2px 8px; text-align: left; }
#summary th { background: #f2f2f2; font-weight: 600; }
#controls button { margin-right: 4px; }
#window { margin-left: 12px; font-weight: 600; }
svg { border: 1px solid #ccc; background: #fcfcfc; user-select: none; cursor: grab; }
.lane-title { font-size: 11px; fill: #444; }
.axis text { font-size: 10px; fill: #555; }
.gap { stroke: #999; stroke-dasharray: 3 3; }
.mark.glitch line { stroke: #d00; stroke-width: 2; }
.mark.overrun line { stroke: #e80; stroke-width: 2; }
.mark.event line { stroke: #36c; stroke-opacity: .45; }
.mark.event text { font-size: 10px; fill: #124; }
.mark.event.asio text, .mark.event.attach text { fill: #037; font-weight: 600; }
.mark.event.unplug line, .mark.event.removal line, .mark.event.replug line,
.mark.event.suspend line, .mark.event.resume line { stroke: #b40; stroke-opacity: .8; stroke-width: 2; }
.mark.event.unplug text, .mark.event.removal text, .mark.event.replug text,
.mark.event.suspend text, .mark.event.resume text { fill: #820; font-weight: 600; }
.absent { fill: #999; fill-opacity: .18; }
#life { margin: 6px 0 0; padding-left: 20px; }
#readout { font: 11px monospace; white-space: pre; margin-top: 6px; min-height: 3em; }
.legend span { display: inline-block; margin-right: 12px; }
.legend i { display: inline-block; width: 14px; height: 3px; vertical-align: middle; margin-right: 4px; }
</style>
</head>
<body>
<h1>mme-sim timeline</h1>
<table id="summary"></table>
<div id="controls">
<button id="zoom-in" title="zoom in (+)">+</button><button id="zoom-out" title="zoom out (-)">&minus;</button><button id="pan-left" title="pan left (&larr;)">&larr;</button><button id="pan-right" title="pan right (&rarr;)">&rarr;</button><button id="zoom-all" title="the whole sample (0)">all</button>
<span id="window"></span>
</div>
<div class="legend">
<span><i style="background:#2a7"></i>capture</span><span><i style="background:#a3c"></i>render</span>
<span><i style="background:#2a7;opacity:.4"></i>transfer offset</span>
<span><i style="background:#d00"></i>glitch</span><span><i style="background:#e80"></i>overrun</span>
<span><i style="background:#36c"></i>event</span><span><i style="background:#b40"></i>device unplugged, removed, replugged, asleep, awake</span>
<span><i style="background:#999;opacity:.4"></i>device absent</span><span><i style="background:#999"></i>periods not kept</span>
</div>
<svg id="timeline" xmlns="http://www.w3.org/2000/svg" width="1200" height="560" viewBox="0 0 1200 560"></svg>
<div id="readout"></div>
<ul id="life"></ul>
<script type="application/json" id="mme-timeline">
)HTML";

const char kPageTail[] = R"HTML(
</script>
<script>
(function () {
  'use strict';
  var data = JSON.parse(document.getElementById('mme-timeline').textContent);
  var C = {};
  data.columns.forEach(function (name, i) { C[name] = i; });
  var rows = data.rows, n = rows.length;
  var NS = 'http://www.w3.org/2000/svg';
  var svg = document.getElementById('timeline');
  var W = 1200, LEFT = 150, RIGHT = 16, PLOT = W - LEFT - RIGHT;
  var lanes = [
    { key: 'rings', title: 'rings - clock (frames)', h: 80,
      series: [['capture mWritePos', '#2a7', function (r) { return fromClock(r, r[C.captureWritePos]); }],
               ['render mWritePos', '#a3c', function (r) { return fromClock(r, r[C.renderWritePos]); }],
               ['mMMEReadPos', '#36c', function (r) { return r[C.mmeReadPos] === 4294967295 ? null : fromClock(r, r[C.mmeReadPos]); }, true]] },
    { key: 'dma', title: 'DMA position (bytes)', h: 90,
      series: [['capture position', '#2a7', function (r) { return r[C.captureDmaPosition]; }],
               ['render position', '#a3c', function (r) { return r[C.renderDmaPosition]; }],
               ['capture transfer offset', 'rgba(34,170,119,.4)', function (r) { return r[C.captureTransferOffset]; }, true],
               ['render transfer offset', 'rgba(170,51,204,.4)', function (r) { return r[C.renderTransferOffset]; }, true]] },
    { key: 'services', title: 'port copied (bytes)', h: 70, bars: true,
      series: [['capture copied', '#2a7', function (r) { return r[C.captureCopied]; }],
               ['render copied', '#a3c', function (r) { return r[C.renderCopied]; }]] },
    { key: 'deviation', title: 'update - period (frames)', h: 60,
      series: [['capture', '#2a7', function (r) { return r[C.captureDeviation]; }],
               ['render', '#a3c', function (r) { return r[C.renderDeviation]; }]] },
    { key: 'glitches', title: 'glitches / overruns', h: 34 },
    { key: 'events', title: 'events', h: 176 }
  ];
  var top = 10;
  lanes.forEach(function (l) { l.y = top; top += l.h + 12; });
  var AXIS = top + 4;
  svg.setAttribute('height', AXIS + 30);
  svg.setAttribute('viewBox', '0 0 ' + W + ' ' + (AXIS + 30));

  function diff(a, b) { var d = (a - b) >>> 0; return d > 2147483647 ? d - 4294967296 : d; }
  // Where a ring position stands against the frames the period clock ran.
  function fromClock(r, position) { return diff(position, ((r[C.period] + 1) * data.periodFrames) % 4294967296); }
  function el(name, attrs, parent) {
    var e = document.createElementNS(NS, name);
    for (var k in attrs) e.setAttribute(k, attrs[k]);
    (parent || svg).appendChild(e);
    return e;
  }
  function indexOf(period) {
    var lo = 0, hi = n;
    while (lo < hi) { var m = (lo + hi) >> 1; if (rows[m][C.period] < period) lo = m + 1; else hi = m; }
    return lo;
  }

  var table = document.getElementById('summary');
  data.summary.forEach(function (kv) {
    var tr = table.insertRow();
    tr.dataset.key = kv[0];
    var th = document.createElement('th'); th.textContent = kv[0]; tr.appendChild(th);
    tr.insertCell().textContent = kv[1];
  });

  // The device's life, listed in full (the lane may have no room for it).
  var LIFE = { unplug: 1, removal: 1, replug: 1, suspend: 1, resume: 1 };
  var life = document.getElementById('life');
  data.events.forEach(function (e) {
    if (!LIFE[e.kind]) return;
    var li = document.createElement('li');
    li.className = 'life ' + e.kind;
    li.dataset.period = e.period;
    li.textContent = 'period ' + e.period + ': ' + e.kind + ': ' + e.label;
    life.appendChild(li);
  });

  var view = { start: 0, span: Math.max(n, 1) };
  function clamp() {
    view.span = Math.min(Math.max(view.span, Math.min(20, Math.max(n, 1))), Math.max(n, 1));
    view.start = Math.min(Math.max(view.start, 0), Math.max(n - view.span, 0));
  }
  function x(i) { return LEFT + (i - view.start + 0.5) / view.span * PLOT; }

  function draw() {
    clamp();
    while (svg.firstChild) svg.removeChild(svg.firstChild);
    var first = Math.floor(view.start), last = Math.min(n, Math.ceil(view.start + view.span));
    var stride = Math.max(1, Math.ceil((last - first) / PLOT));
    lanes.forEach(function (l) {
      el('rect', { x: LEFT, y: l.y, width: PLOT, height: l.h, fill: '#fff', stroke: '#e4e4e4' });
      var t = el('text', { x: 6, y: l.y + l.h / 2 + 4, 'class': 'lane-title' });
      t.textContent = l.title;
      if (!l.series) return;
      var lo = Infinity, hi = -Infinity;
      for (var i = first; i < last; i++) l.series.forEach(function (s) {
        var v = s[2](rows[i]); if (v === null) return; if (v < lo) lo = v; if (v > hi) hi = v;
      });
      if (lo === Infinity) return;
      if (l.bars) lo = Math.min(lo, 0);
      if (hi === lo) { hi = lo + 1; }
      function y(v) { return l.y + l.h - 4 - (v - lo) / (hi - lo) * (l.h - 8); }
      var lab = el('text', { x: LEFT - 4, y: l.y + 10, 'class': 'lane-title', 'text-anchor': 'end' });
      lab.textContent = hi;
      lab = el('text', { x: LEFT - 4, y: l.y + l.h - 2, 'class': 'lane-title', 'text-anchor': 'end' });
      lab.textContent = lo;
      l.series.forEach(function (s, k) {
        if (l.bars) {
          var w = Math.max(1, PLOT / view.span * stride / l.series.length);
          for (var i = first; i < last; i += stride) {
            var v = 0;
            for (var j = i; j < Math.min(i + stride, last); j++) v = Math.max(v, s[2](rows[j]));
            if (!v) continue;
            el('rect', { x: x(i) - w * l.series.length / 2 + k * w, y: y(v), width: w, height: y(lo) - y(v), fill: s[1] });
          }
          return;
        }
        var pts = [];
        for (var i = first; i < last; i += stride) {
          var v = s[2](rows[i]);
          if (v !== null) pts.push(x(i).toFixed(1) + ',' + y(v).toFixed(1));
        }
        var p = el('polyline', { points: pts.join(' '), fill: 'none', stroke: s[1], 'stroke-width': s[3] ? 1 : 1.5 });
        if (s[3]) p.setAttribute('stroke-dasharray', '4 2');
        p.appendChild(document.createElementNS(NS, 'title')).textContent = s[0];
      });
    });

    var gl = lanes[4], ev = lanes[5];
    // Periods without the device (unplugged or asleep), shaded across the lanes.
    if (C.present !== undefined) {
      for (var i = first; i < last; i++) {
        if (rows[i][C.present]) continue;
        var j = i;
        while (j + 1 < last && !rows[j + 1][C.present]) j++;
        var a = el('rect', { x: x(i - 0.5), y: lanes[0].y, width: Math.max(1, x(j + 0.5) - x(i - 0.5)),
                             height: ev.y + ev.h - lanes[0].y, 'class': 'absent',
                             'data-from': rows[i][C.period], 'data-to': rows[j][C.period] });
        a.appendChild(document.createElementNS(NS, 'title')).textContent =
          'periods ' + rows[i][C.period] + '\u2013' + rows[j][C.period] + ': the device was absent';
        i = j;
      }
    }
    for (var i = Math.max(first, 1); i < last; i++) {
      var skipped = rows[i][C.period] - rows[i - 1][C.period] - 1;
      if (skipped > 0) {
        var g = el('line', { x1: x(i - 0.5), x2: x(i - 0.5), y1: lanes[0].y, y2: ev.y + ev.h, 'class': 'gap' });
        g.appendChild(document.createElementNS(NS, 'title')).textContent = skipped + ' periods not kept';
      }
    }
    for (var i = first; i < last; i++) {
      var r = rows[i];
      [['glitch', C.glitches], ['overrun', C.overruns]].forEach(function (m, k) {
        if (!r[m[1]]) return;
        var g = el('g', { 'class': 'mark ' + m[0], 'data-period': r[C.period], 'data-count': r[m[1]] });
        var xx = x(i).toFixed(1);
        el('line', { x1: xx, x2: xx, y1: gl.y + 2 + k * gl.h / 2, y2: gl.y + (k + 1) * gl.h / 2 - 2 }, g);
        g.appendChild(document.createElementNS(NS, 'title')).textContent = m[0] + ' at period ' + r[C.period];
      });
    }
    var lo = first < n ? rows[first][C.period] : 0;
    var hiP = last > 0 ? rows[last - 1][C.period] : 0;
    // Labels go in the first line of the lane where they overlap no other.
    var lineEnds = [], LINES = Math.floor((ev.h - 4) / 13.5);
    for (var k = 0; k < LINES; k++) lineEnds.push(-Infinity);
    // Events of one kind in one period share a mark: "capture ACQUIRE, PAUSE, RUN".
    var groups = [];
    data.events.forEach(function (e) {
      var g = groups[groups.length - 1];
      if (g && g.period === e.period && g.kind === e.kind) g.label += ', ' + e.label;
      else groups.push({ period: e.period, kind: e.kind, label: e.label });
    });
    groups.forEach(function (e) {
      if (e.period < lo || e.period > hiP) return;
      var i = indexOf(e.period);
      var g = el('g', { 'class': 'mark event ' + e.kind, 'data-period': e.period, 'data-kind': e.kind });
      var xx = x(i);
      var line = 0;
      for (var k = 0; k < LINES; k++) {
        if (lineEnds[k] < xx) { line = k; break; }
        if (lineEnds[k] < lineEnds[line]) line = k;
      }
      lineEnds[line] = xx + 6 * e.label.length + 8;
      xx = xx.toFixed(1);
      el('line', { x1: xx, x2: xx, y1: lanes[0].y, y2: ev.y + ev.h }, g);
      var t = el('text', { x: +xx + 3, y: ev.y + 12 + line * 13.5 }, g);
      t.textContent = e.label;
      g.appendChild(document.createElementNS(NS, 'title')).textContent = 'period ' + e.period + ': ' + e.label;
    });

    var axis = el('g', { 'class': 'axis' });
    el('line', { x1: LEFT, x2: LEFT + PLOT, y1: AXIS, y2: AXIS, stroke: '#888' }, axis);
    var ticks = 8;
    for (var k = 0; k <= ticks && n; k++) {
      var i = Math.min(last - 1, Math.round(first + (last - 1 - first) * k / ticks));
      var xx = x(i);
      el('line', { x1: xx, x2: xx, y1: AXIS, y2: AXIS + 4, stroke: '#888' }, axis);
      var t = el('text', { x: xx, y: AXIS + 16, 'text-anchor': 'middle' }, axis);
      t.textContent = rows[i][C.period];
    }
    var t = el('text', { x: 6, y: AXIS + 16 }, axis);
    t.textContent = 'period';
    document.getElementById('window').textContent = n
      ? 'periods ' + lo + '\u2013' + hiP + ' (' + (last - first) + ' of ' + n + ' kept; ' + data.periods + ' in the run)'
      : 'no period ran';
  }

  function zoom(factor, at) {
    var centre = at === undefined ? view.start + view.span / 2 : at;
    var span = view.span * factor;
    view.start = centre - (centre - view.start) * factor;
    view.span = span;
    draw();
  }
  function rowAt(evt) {
    var box = svg.getBoundingClientRect();
    var px = (evt.clientX - box.left) * W / box.width;
    return view.start + (px - LEFT) / PLOT * view.span;
  }
  document.getElementById('zoom-in').onclick = function () { zoom(0.5); };
  document.getElementById('zoom-out').onclick = function () { zoom(2); };
  document.getElementById('pan-left').onclick = function () { view.start -= view.span / 4; draw(); };
  document.getElementById('pan-right').onclick = function () { view.start += view.span / 4; draw(); };
  document.getElementById('zoom-all').onclick = function () { view.start = 0; view.span = n; draw(); };
  svg.addEventListener('wheel', function (evt) { evt.preventDefault(); zoom(evt.deltaY < 0 ? 0.8 : 1.25, rowAt(evt)); });
  var drag = null;
  svg.addEventListener('mousedown', function (evt) { drag = { x: evt.clientX, start: view.start }; });
  window.addEventListener('mouseup', function () { drag = null; });
  svg.addEventListener('mousemove', function (evt) {
    var box = svg.getBoundingClientRect();
    if (drag) { view.start = drag.start - (evt.clientX - drag.x) / box.width * W / PLOT * view.span; draw(); return; }
    var i = Math.floor(rowAt(evt));
    if (i < 0 || i >= n) return;
    document.getElementById('readout').textContent = data.columns.map(function (c, k) { return c + ' ' + rows[i][k]; }).join('  ');
  });
  window.addEventListener('keydown', function (evt) {
    if (evt.key === '+') zoom(0.5); else if (evt.key === '-') zoom(2);
    else if (evt.key === 'ArrowLeft') { view.start -= view.span / 4; draw(); }
    else if (evt.key === 'ArrowRight') { view.start += view.span / 4; draw(); }
    else if (evt.key === '0') { view.start = 0; view.span = n; draw(); }
  });
  draw();
  document.body.setAttribute('data-rendered', 'yes');
})();
</script>
</body>
</html>
)HTML";

} // namespace

nlohmann::json reportJson(const ReportInput& in, const Timeline& timeline) {
    nlohmann::json j;
    j["schema"] = "mme-sim-timeline/1";
    j["command"] = in.command;
    j["device"] = in.device;
    j["format"] = in.format.rate ? nlohmann::json{{"rate", in.format.rate},
                                                  {"channels", in.format.channels},
                                                  {"bits", in.format.bits}}
                                 : nlohmann::json(nullptr);
    j["periodFrames"] = in.periodFrames;
    j["rate"] = in.rate;
    j["periods"] = in.figures.periods;
    j["result"] = in.result;
    nlohmann::json summary = nlohmann::json::array();
    for (const auto& kv : in.summary)
        summary.push_back({kv.first, kv.second});
    j["summary"] = summary;
    const SoakFigures& f = in.figures;
    j["soak"] = {
        {"periods", f.periods},
        {"exchanged", f.exchanged},
        {"absent", f.absent},
        {"glitches", f.glitches},
        {"overruns", f.overruns},
        {"firstGlitchPeriod", f.glitches ? nlohmann::json(f.firstGlitchPeriod) : nullptr},
        {"firstOverrunPeriod", f.overruns ? nlohmann::json(f.firstOverrunPeriod) : nullptr},
        {"services", {{"capture", f.services[0]}, {"render", f.services[1]}}},
        {"largestDeviationFrames",
         {{"capture", f.largestDeviation[0]}, {"render", f.largestDeviation[1]}}},
        {"servicedLate", optionalJson(in.servicedLate)},
        {"latencyFrames", optionalJson(in.latencyFrames)},
    };
    nlohmann::json columns = nlohmann::json::array();
    for (const char* c : kColumns)
        columns.push_back(c);
    j["columns"] = columns;
    nlohmann::json rows = nlohmann::json::array();
    for (const PeriodRow& r : timeline.sample())
        rows.push_back(rowJson(r));
    j["rows"] = rows;
    j["kept"] = {{"head", Timeline::kHeadPeriods},
                 {"tail", Timeline::kTailPeriods},
                 {"window", Timeline::kWindowPeriods},
                 {"windows", timeline.windows()},
                 {"windowsDropped", timeline.windowsDropped()}};
    nlohmann::json events = nlohmann::json::array();
    for (const TimelineEvent& e : timeline.events())
        events.push_back({{"period", e.period}, {"kind", e.kind}, {"label", e.label}});
    j["events"] = events;
    j["eventsDropped"] = timeline.eventsDropped();
    return j;
}

void writeReport(const std::string& path, const ReportInput& input, const Timeline& timeline) {
    std::string json = reportJson(input, timeline).dump();
    // Inside a script element "</" would end it early.
    for (size_t at = 0; (at = json.find("</", at)) != std::string::npos; at += 3)
        json.replace(at, 2, "<\\/");
    const std::string part = path + ".part";
    {
        std::ofstream out(part, std::ios::out | std::ios::trunc | std::ios::binary);
        if (!out)
            throw FileError(path + ": cannot write the report");
        out << kPageHead << json << kPageTail;
        out.close();
        if (!out) {
            std::remove(part.c_str());
            throw FileError(path + ": cannot write the report");
        }
    }
    if (std::rename(part.c_str(), path.c_str()) != 0) {
        std::remove(part.c_str());
        throw FileError(path + ": cannot write the report");
    }
}

} // namespace mmesim

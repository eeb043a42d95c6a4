// How the link fares: plots of the last ten minutes, the events, the counters.
import { byId, element, loadScript, setText } from "./dom.js";
import { parseCounters } from "./counters.js";

const kSpan_s = 600;
const kPlotHeight = 112;
const kLanesHeight = 78;
const kMostEvents = 300;

const increase = (name) => (now, before) =>
  now[name] === null || before?.[name] == null ? null : Math.max(0, now[name] - before[name]);
const value = (name) => (now) => now[name];
const lane = (name, low) => (now) => low + (now[name] ? 0.8 : 0);

// Colours are names of the style sheet's, so that both themes have their own.
const kPlots = [
  { title: "Bit rate", unit: "Mbit/s", series: [["rate", "--plot-1", value("mbit_s")]] },
  { title: "Frames", unit: "a second", series: [["frames", "--plot-2", value("fps")]] },
  {
    title: "Longest time between frames",
    unit: "ms",
    series: [["longest", "--plot-3", value("unit_gap_ms_max")]],
  },
  {
    title: "Lost",
    unit: "a second",
    series: [
      ["corrupted units", "--plot-4", increase("corrupted")],
      ["kernel drops", "--plot-5", increase("kernel_drops")],
    ],
  },
  {
    title: "Up",
    unit: "",
    lanes: ["phone", "camera"],
    series: [
      ["camera", "--plot-1", lane("camera_up", 1.1)],
      ["phone", "--plot-3", lane("phone_up", 0.1)],
    ],
  },
];

const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

// A box without a clock of its own may think that it is another day: its times are shown by this
// device's clock.
let ahead_ms = 0;
const clock = (time_ms) => new Date(time_ms + ahead_ms).toLocaleTimeString([], { hour12: false });

// --- plots ----------------------------------------------------------------------------------------

function plotOptions(plot, width) {
  const stepped = plot.lanes ? uPlot.paths.stepped({ align: -1 }) : undefined;
  const axis = {
    stroke: colour("--dim"),
    grid: { stroke: colour("--grid"), width: 1 },
    ticks: { show: false },
    font: "11px system-ui",
  };
  const y = plot.lanes
    ? { splits: () => [0.5, 1.5], values: () => plot.lanes, range: [0, 2.1] }
    : { range: (_, __, highest) => [0, Math.max(1, (highest ?? 0) * 1.15)] };
  return {
    width,
    height: plot.lanes ? kLanesHeight : kPlotHeight,
    cursor: { sync: { key: "link" }, y: false, drag: { x: false, y: false } },
    legend: { show: false },
    scales: {
      x: { time: true, range: (_, __, latest_s) => [latest_s - kSpan_s, latest_s] },
      y: { range: y.range },
    },
    axes: [
      {
        ...axis,
        size: 22,
        space: 70,
        values: (_, times) => times.map((t) => clock(t * 1000).slice(0, 5)),
      },
      { ...axis, size: plot.lanes ? 58 : 44, splits: y.splits, values: y.values, space: 24 },
    ],
    series: [
      {},
      ...plot.series.map(([label, name]) => ({
        label,
        stroke: colour(name),
        fill: `${colour(name)}22`,
        width: 1.5,
        paths: stepped,
        points: { show: false },
        spanGaps: false,
      })),
    ],
  };
}

const columnsOf = (plot, samples) => [
  samples.map((sample) => sample.time_ms / 1000),
  ...plot.series.map(([, , read]) => samples.map((sample, i) => read(sample, samples[i - 1]))),
];

// The latest numbers stand beside the title, for who cannot read a curve.
function latestTexts(plot, samples) {
  const latest = columnsOf(plot, samples.slice(-2))
    .slice(1)
    .map((column) => column.at(-1));
  if (plot.lanes) {
    return plot.series.map(([label], i) => `${label} ${latest[i] % 1 > 0.5 ? "up" : "down"}`);
  }
  const texts = latest.map((it) =>
    it == null ? "–" : it.toFixed(it % 1 !== 0 && it < 10 ? 1 : 0),
  );
  return plot.series.map(([label], i) =>
    plot.series.length > 1 ? `${label} ${texts[i]}` : `${texts[i]} ${plot.unit}`,
  );
}

function buildFigures() {
  return kPlots.map((plot) => {
    const latest = plot.series.map(([, name]) => {
      const text = element("span", { class: plot.series.length > 1 ? "latest key" : "latest" });
      text.style.setProperty("--key", `var(${name})`);
      return text;
    });
    const room = element("div", { class: "plot", "aria-hidden": "true" });
    const caption = element("figcaption", {}, element("b", {}, plot.title), ...latest);
    byId("plots").append(element("figure", plot.lanes ? { class: "lanes" } : {}, caption, room));
    return { plot, latest, room, drawn: null };
  });
}

// --- the view -------------------------------------------------------------------------------------

export function createLinkView() {
  const figures = buildFigures();
  let samples = [];
  let is_visible = false;

  const redraw = (anew = false) => {
    for (const figure of figures) {
      const texts = samples.length === 0 ? [] : latestTexts(figure.plot, samples);
      figure.latest.forEach((text, i) => setText(text, texts[i] ?? ""));
      const width = figure.room.clientWidth;
      if (!is_visible || width === 0 || typeof uPlot === "undefined") {
        continue;
      }
      if (figure.drawn === null || anew) {
        figure.drawn?.destroy();
        figure.drawn = new uPlot(
          plotOptions(figure.plot, width),
          columnsOf(figure.plot, samples),
          figure.room,
        );
      } else {
        figure.drawn.setData(columnsOf(figure.plot, samples));
      }
    }
  };
  // Nobody pays for plots that nobody sees.
  const loadPlots = async () => {
    await Promise.all([loadScript("vendor/uPlot.iife.min.js"), loadStyle("vendor/uPlot.min.css")]);
    redraw();
  };
  new IntersectionObserver(
    ([entry]) => {
      is_visible = entry.isIntersecting;
      if (is_visible) {
        loadPlots().catch(() => setText(byId("plots"), "The plots could not be loaded."));
      }
    },
    { rootMargin: "300px" },
  ).observe(byId("link"));
  let width = 0;
  new ResizeObserver(([entry]) => {
    if (Math.round(entry.contentRect.width) !== width) {
      width = Math.round(entry.contentRect.width);
      redraw(true);
    }
  }).observe(byId("plots"));

  const addEvents = (events) => {
    const rows = events.map((event) =>
      element(
        "li",
        {},
        element(
          "time",
          { datetime: new Date(event.time_ms + ahead_ms).toISOString() },
          clock(event.time_ms),
        ),
        " ",
        event.text,
      ),
    );
    byId("events").prepend(...rows.reverse());
    while (byId("events").children.length > kMostEvents) {
      byId("events").lastChild.remove();
    }
  };
  byId("counters").addEventListener("toggle", () => byId("counters").open && showCounters());
  return {
    setBoxTime(time_ms) {
      ahead_ms = Date.now() - time_ms;
    },
    setHistory(history) {
      samples = history;
      redraw();
    },
    add(sample) {
      samples.push(sample);
      const oldest_ms = sample.time_ms - kSpan_s * 1000;
      samples = samples.filter((it) => it.time_ms >= oldest_ms);
      redraw();
    },
    setEvents(events) {
      byId("events").replaceChildren();
      addEvents(events);
    },
    addEvent: (event) => addEvents([event]),
    themeChanged: () => redraw(true),
  };
}

function loadStyle(path) {
  if (document.querySelector(`link[href="${path}"]`) === null) {
    document.head.append(element("link", { rel: "stylesheet", href: path }));
  }
}

async function showCounters() {
  const room = byId("counters-table");
  try {
    const answer = await fetch("metrics", { cache: "no-store" });
    const rows = parseCounters(await answer.text()).map(({ name, value: count, help }) =>
      element("tr", {}, element("td", {}, name), element("td", {}, count), element("td", {}, help)),
    );
    const head = ["Counter", "Value", "Meaning"].map((title) =>
      element("th", { scope: "col" }, title),
    );
    room.replaceChildren(
      rows.length === 0
        ? element("p", {}, "The box has no counters: is the daemon running?")
        : element(
            "table",
            {},
            element("thead", {}, element("tr", {}, ...head)),
            element("tbody", {}, ...rows),
          ),
    );
  } catch {
    setText(room, "The counters could not be read.");
  }
}

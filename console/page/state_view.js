// The camera's state as an operator reads it: a strip above the picture (mode, format, time, card,
// battery), a strip below it (exposure and colour), the histogram on it, and a list of all items.
import { byId, element, setText } from "./dom.js";

const kUnknown = "–";

const known = (items, name) => {
  const value = items.get(name) ?? "";
  return value === "" ? kUnknown : value;
};

// Whole seconds carry their sign already.
const withUnit = (text, unit) =>
  text === kUnknown || text.endsWith('"') ? text : `${text}${unit}`;

const sizeText = (items) => known(items, "resolution").replace("x", "×");

// What goes with the size: the rate of a film, the file of a photo.
const formatNote = (items) =>
  items.get("camera_mode") === "photo"
    ? (items.get("shot_mode") ?? "")
    : withUnit(items.get("framerate") || kUnknown, "p");

function whiteBalanceText(items) {
  const temperature = items.get("wb_temp") ?? "";
  const mode = known(items, "wb");
  return mode === "custom" && temperature !== "" ? `${temperature} K` : mode;
}

// What is in use, and, smaller, what was asked for where that differs.
const asked = (items, used, set) => {
  const wanted = items.get(set) ?? "";
  return wanted !== "" && wanted !== items.get(used) ? wanted : "";
};

const batteryNote = (items) => (items.get("battery_charging") === "1" ? "charging" : "");

const timeLeft = (items) => {
  const left = items.get("rec_time_left") ?? "";
  return left === "" ? "" : `${left} left`;
};

// id, label, what is read, a note beside it.
const kStatusStrip = [
  ["mode", "Mode", (i) => known(i, "camera_mode"), () => ""],
  ["format", "Format", sizeText, formatNote],
  ["rec", "Recording", (i) => known(i, "rec_time"), timeLeft],
  ["shots", "Shots left", (i) => known(i, "shots_left"), () => ""],
  ["card", "Card", (i) => known(i, "sd"), () => ""],
  ["battery", "Battery", (i) => withUnit(known(i, "battery_level"), " %"), batteryNote],
];

const kExposureStrip = [
  ["shutter", "Shutter", (i) => known(i, "shutter"), (i) => asked(i, "shutter", "shutter_set")],
  [
    "aperture",
    "Aperture",
    (i) => (known(i, "aperture") === kUnknown ? kUnknown : `f/${known(i, "aperture")}`),
    () => "",
  ],
  ["iso", "ISO", (i) => known(i, "iso"), (i) => asked(i, "iso", "iso_set")],
  ["ev", "EV", (i) => known(i, "ev"), () => ""],
  ["wb", "WB", whiteBalanceText, () => ""],
  [
    "image-mode",
    "Exposure",
    (i) => known(i, "image_mode"),
    (i) => (i.get("ae") === "1" ? "AE" : ""),
  ],
  ["color", "Colour", (i) => known(i, "color_mode"), () => ""],
];

// Fills a strip; returns the function that renews it.
function buildStrip(list, rows) {
  const cells = rows.map(([id, label, read, note]) => {
    const value = element("span", { class: "value" }, kUnknown);
    const beside = element("span", { class: "note" });
    const cell = element(
      "div",
      { id: `cell-${id}` },
      element("dt", {}, label),
      element("dd", {}, value, " ", beside),
    );
    list.append(cell);
    return { read, note, value, beside };
  });
  return (items) => {
    for (const { read, note, value, beside } of cells) {
      setText(value, read(items));
      setText(beside, note(items));
    }
  };
}

// --- histogram ------------------------------------------------------------------------------------

const kWidth = 128;
const kHeight = 48;

// A smooth curve through the bins; a square root makes the low ones visible.
function curveOf(values) {
  const largest = Math.max(...values, 1);
  const points = values.map((value, i) => [
    (i * kWidth) / (values.length - 1),
    kHeight - Math.sqrt(value / largest) * (kHeight - 3) - 1,
  ]);
  let path = `M${points[0][0]} ${points[0][1].toFixed(1)}`;
  for (let i = 1; i < points.length; ++i) {
    const middle = (points[i - 1][0] + points[i][0]) / 2;
    const [from, to] = [points[i - 1][1].toFixed(1), points[i][1].toFixed(1)];
    path += `C${middle} ${from} ${middle} ${to} ${points[i][0].toFixed(1)} ${to}`;
  }
  return path;
}

function showHistogram(values) {
  byId("histogram").toggleAttribute("hidden", values === null);
  if (values !== null) {
    const curve = curveOf(values);
    byId("histogram-line").setAttribute("d", curve);
    byId("histogram-area").setAttribute("d", `${curve}V${kHeight}H0Z`);
  }
}

// --- all of it ------------------------------------------------------------------------------------

// {setItems(items of hello), show(telemetry)}
export function createStateView() {
  const showStatus = buildStrip(byId("status-strip"), kStatusStrip);
  const showExposure = buildStrip(byId("exposure-strip"), kExposureStrip);
  const battery = byId("cell-battery");
  let rows = [];
  const setItems = (items) => {
    rows = items.map((item) => ({ ...item, value: element("dd", {}, kUnknown) }));
    byId("items-list").replaceChildren(
      ...rows.map((row) => element("div", {}, element("dt", {}, row.label), row.value)),
    );
  };
  const show = ({ items, recording, histogram }) => {
    showStatus(items);
    showExposure(items);
    showHistogram(histogram);
    setText(byId("model"), items.get("camera_model") ?? "");
    byId("cell-rec").dataset.on = recording;
    const level = Number.parseInt(items.get("battery_level") ?? "", 10);
    battery.dataset.level = level < 15 ? "low" : "fine";
    battery.style.setProperty("--level", `${Math.min(Math.max(level || 0, 0), 100)}%`);
    for (const row of rows) {
      setText(row.value, withUnit(known(items, row.name), row.unit === "" ? "" : ` ${row.unit}`));
    }
  };
  return { setItems, show };
}

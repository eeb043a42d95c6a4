// The box's counters, from Prometheus text.

const kMostRows = 500;
const kSample = /^([A-Za-z_:][\w:]*(?:\{[^}]*\})?) ([-+.\w]+)/;
const kHelp = /^# HELP ([\w:]+) (.*)$/;

// {name, value, help} of each sample; the help only on the first of a name.
export function parseCounters(text) {
  const helps = new Map();
  const rows = [];
  for (const line of text.split("\n")) {
    const help = kHelp.exec(line);
    if (help !== null) {
      helps.set(help[1], help[2].slice(0, 200));
      continue;
    }
    const sample = kSample.exec(line);
    if (sample !== null && rows.length < kMostRows) {
      const base = sample[1].split("{")[0];
      rows.push({
        name: sample[1].slice(0, 120),
        value: sample[2].slice(0, 30),
        help: helps.get(base) ?? "",
      });
      helps.delete(base);
    }
  }
  return rows;
}

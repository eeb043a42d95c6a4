// What a message of the server may hold. Anything else becomes a harmless value of the wanted type.

const kLongestMessage = 1 << 20;

// The object in that JSON text; null when there is none.
export function parseObject(data) {
  if (typeof data !== "string" || data.length > kLongestMessage) {
    return null;
  }
  try {
    const value = JSON.parse(data);
    return isObject(value) ? value : null;
  } catch {
    return null;
  }
}

export const isObject = (value) =>
  typeof value === "object" && value !== null && !Array.isArray(value);
export const text = (value, longest = 120) =>
  typeof value === "string" ? value.slice(0, longest) : "";
export const number = (value) =>
  typeof value === "number" && Number.isFinite(value) ? value : null;
export const list = (value, most) => (Array.isArray(value) ? value.slice(0, most) : []);

// The members of an object, each checked by check(value); at most `most` of them.
export const members = (value, check, most) =>
  new Map(
    (isObject(value) ? Object.entries(value) : [])
      .slice(0, most)
      .map(([key, member]) => [text(key, 60), check(member)]),
  );

// Elements made from plain values. Text goes in as text, never as markup.

export const byId = (id) => document.getElementById(id);

// element("button", {class: "big", disabled: true, on: {click: f}}, "Shot", child...)
export function element(tag, attributes = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name === "on") {
      Object.entries(value).forEach(([event, listener]) => made.addEventListener(event, listener));
    } else if (value === true) {
      made.setAttribute(name, "");
    } else if (value !== false && value !== null && value !== undefined) {
      made.setAttribute(name, value);
    }
  }
  made.append(...children);
  return made;
}

// Writes only what differs: screen readers and layout are left in peace.
export function setText(target, text) {
  if (target.textContent !== text) {
    target.textContent = text;
  }
}

const scripts = new Map();

// A script of this server that is no module; each is loaded once.
export function loadScript(path) {
  if (!scripts.has(path)) {
    scripts.set(
      path,
      new Promise((resolve, reject) => {
        const script = element("script", { src: path });
        script.onload = resolve;
        script.onerror = () => {
          scripts.delete(path);
          reject(new Error(`${path} could not be loaded`));
        };
        document.head.append(script);
      }),
    );
  }
  return scripts.get(path);
}

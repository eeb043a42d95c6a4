// The sign-in: asks for the password until the server takes it.
import { parseObject, text } from "./checks.js";
import { byId, setText } from "./dom.js";

export async function readSession() {
  const answer = await fetch("session", { cache: "no-store" });
  const session = parseObject(await answer.text()) ?? {};
  return {
    host: text(session.host, 80),
    version: text(session.version, 40),
    signed_in: session.signed_in !== false,
    password_needed: session.password_needed === true,
  };
}

async function trySignIn(password) {
  const answer = await fetch("sign-in", {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify({ password }),
  });
  if (answer.ok) {
    return "";
  }
  const said = parseObject(await answer.text());
  const wait_s = Number(said?.retry_after_s);
  const error = text(said?.error, 120) || `the box answered ${answer.status}`;
  return wait_s > 0 ? `${error}: try again in ${Math.ceil(wait_s)} s` : error;
}

// Resolves when the user is signed in.
export function askToSignIn() {
  const dialog = byId("sign-in");
  const password = byId("password");
  const error = byId("sign-in-error");
  if (dialog.open) {
    return new Promise(() => {}); // somebody waits already
  }
  setText(error, "");
  dialog.showModal();
  dialog.oncancel = (event) => event.preventDefault();
  return new Promise((resolve) => {
    dialog.querySelector("form").onsubmit = async (event) => {
      event.preventDefault();
      const refusal = await trySignIn(password.value).catch(() => "the box does not answer");
      setText(error, refusal);
      if (refusal === "") {
        password.value = "";
        dialog.close();
        resolve();
      } else {
        password.select();
      }
    };
  });
}

export const signOut = () => fetch("sign-out", { method: "POST" });

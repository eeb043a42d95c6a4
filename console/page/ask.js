// Asks before what cannot be undone: the user types a word.
import { byId, setText } from "./dom.js";

// The word as it was typed, null when the user thought better of it.
export function askForWord(title, word) {
  const dialog = byId("ask");
  const input = byId("ask-word");
  const yes = byId("ask-yes");
  setText(byId("ask-title"), title);
  setText(byId("ask-text"), `This cannot be undone. To go on, type the word “${word}”.`);
  input.value = "";
  yes.disabled = true;
  input.oninput = () => (yes.disabled = input.value.trim() !== word);
  // Enter presses the first button of a form, which is Cancel.
  input.onkeydown = (event) => {
    if (event.key === "Enter") {
      event.preventDefault();
      yes.click();
    }
  };
  dialog.returnValue = "no";
  dialog.showModal();
  input.focus();
  return new Promise((resolve) => {
    dialog.onclose = () => resolve(dialog.returnValue === "yes" ? input.value.trim() : null);
  });
}

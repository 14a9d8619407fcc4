// Who chooses a language chooses it everywhere, and keeps it.
function choose(language) {
  for (const input of document.querySelectorAll(".tabs > input"))
    if (input.value === language) input.checked = true;
}

document.addEventListener("DOMContentLoaded", () => choose(localStorage.getItem("language")));
document.addEventListener("change", (event) => {
  if (!event.target.closest(".tabs")) return;
  localStorage.setItem("language", event.target.value);
  choose(event.target.value);
});

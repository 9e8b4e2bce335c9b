// Light or dark, as it is chosen in Cockpit.

const KEY = "shell:style";

function apply(style) {
    const isDark = style === "dark" || (style !== "light" && matchMedia("(prefers-color-scheme: dark)").matches);
    document.documentElement.classList.toggle("dark", isDark);
}

export function followTheme() {
    const chosen = () => localStorage.getItem(KEY) || "auto";
    addEventListener("storage", event => event.key === KEY && apply(chosen()));
    addEventListener("cockpit-style", event => event instanceof CustomEvent && apply(event.detail.style));
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => apply(chosen()));
    apply(chosen());
}

// The browser of the test, Debian's chromium, and what Cockpit shows around the page.
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";

const { chromium } = createRequire(import.meta.url)("playwright-core");
const AXE = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");

const COCKPIT = "http://127.0.0.1:9090";
const FRAME = 'iframe[name="cockpit1:localhost/vesperd"]';
export const WIDE = { width: 1280, height: 900 };
export const NARROW = { width: 390, height: 844 };

// /dev/shm may be small, and the sandbox needs what a container lacks.
export const startBrowser = () => chromium.launch({
    executablePath: "/usr/bin/chromium", args: ["--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu"],
});

// Somebody who is logged in and looks at the page.
export class Visitor {
    // `isAdministrator`: with administrative access; `language` is Cockpit's, as in "de-de".
    static async logIn(browser, user, { isAdministrator = false, language = "en-us" } = {}) {
        const context = await browser.newContext({ viewport: WIDE, locale: language, acceptDownloads: true });
        await context.addInitScript(([name, access]) => localStorage.setItem(`superuser:${name}`, access), [user, isAdministrator ? "any" : "none"]);
        await context.addCookies([{ name: "CockpitLang", value: language, url: COCKPIT }]);
        const page = await context.newPage();
        const visitor = new Visitor(context, page);
        await page.goto(`${COCKPIT}/vesperd`);
        await page.locator("#login-user-input").fill(user);
        await page.locator("#login-password-input").fill(`${user}-pass`);
        await page.locator("#login-button").click();
        await visitor.frame.locator("nav a[aria-current]").waitFor();
        return visitor;
    }

    constructor(context, page) {
        this.context = context;
        this.page = page;
        this.frame = page.frameLocator(FRAME);
        this.complaints = [];
        page.on("pageerror", error => this.complaints.push(String(error)));
        page.on("dialog", dialog => { this.complaints.push(`a dialog: ${dialog.message()}`); dialog.dismiss() });
        page.on("console", message => message.type() === "error" && message.location().url.includes("/vesperd/") && this.complaints.push(message.text()));
    }

    async open(view) {
        await this.page.goto(`${COCKPIT}/vesperd#/${view}`);
        await this.frame.locator(`nav a[aria-current][href="#/${view}"]`).waitFor();
    }

    // What the page is called inside of Cockpit's own one.
    async document() {
        const handle = await this.page.locator(FRAME).elementHandle();
        return handle.contentFrame();
    }

    async chooseStyle(style) {
        await (await this.document()).evaluate(name => {
            localStorage.setItem("shell:style", name);
            dispatchEvent(new CustomEvent("cockpit-style", { detail: { style: name } }));
        }, style);
    }

    // What axe-core finds in the page: the rules that are violated, and where.
    async violations() {
        const document = await this.document();
        // The page's own policy lets in no other script.
        await document.evaluate(AXE);
        const { violations } = await document.evaluate(() => globalThis.axe.run(globalThis.document, { resultTypes: ["violations"] }));
        return violations.flatMap(({ id, nodes }) => nodes.map(node => `${id}: ${node.html.slice(0, 200)}`));
    }

    logOut() {
        return this.context.close();
    }
}

// Keeps an open page current, and saves without drawing it anew. Nothing needs it: without it every form is a plain one.
//
// All tabs of a browser share one stream of changes: this file is also the worker that holds it. The stream tells the
// digest of each group. A tab compares them with those of its forms and fetches the forms that differ, drawn by the
// server. What somebody has typed is never replaced, and neither is the element that has the focus.

const MOST_NAMES = 40;     // in one address
const SILENCE = 4000;      // milliseconds until the web server counts as away
const AGAIN = 2000;        // until a stream that was refused is tried again

const NO_WEB_SERVER = 'The web server of this page does not answer.';
const KEPT = 'What you have typed is kept.';

// --- The stream, in the worker, or in the tab where the browser has no shared workers.

function follow(tell) {
    let groups = {};
    let trouble = '';
    let silence;
    const report = (why) => {
        trouble = why;
        tell({groups, trouble});
    };
    const hear = () => {
        clearTimeout(silence);
        silence = undefined;
    };
    const open = () => {
        const stream = new EventSource(new URL('changes', import.meta.url));
        stream.onopen = hear;
        stream.addEventListener('groups', (event) => {
            const news = JSON.parse(event.data);
            groups = news.whole ? news.groups : {...groups, ...news.groups};
            report('');
        });
        stream.addEventListener('away', (event) => report(JSON.parse(event.data)));
        stream.onerror = () => {
            silence ??= setTimeout(() => report(NO_WEB_SERVER), SILENCE);
            if (stream.readyState === EventSource.CLOSED) {
                setTimeout(open, AGAIN);
            }
        };
    };
    open();
    return () => ({groups, trouble});
}

function serveTabs() {
    const tabs = new Set();
    let hasNews = false;
    const now = follow((state) => {
        hasNews = true;
        tabs.forEach((tab) => tab.postMessage(state));
    });
    self.onconnect = ({ports: [tab]}) => {
        tabs.add(tab);
        tab.onmessage = () => tabs.delete(tab);
        if (hasNews) {
            tab.postMessage(now());
        }
    };
}

function listen(hear) {
    if (typeof SharedWorker === 'undefined') {
        follow(hear);
        return;
    }
    const connect = () => {
        const {port} = new SharedWorker(import.meta.url, {type: 'module'});
        port.onmessage = (event) => hear(event.data);
        return port;
    };
    let port = connect();
    addEventListener('pagehide', () => port.postMessage('bye'));
    addEventListener('pageshow', (event) => {
        if (event.persisted) {
            port = connect();
        }
    });
}

// --- The rows of a form

const rowsOf = (form) => [...form.querySelectorAll('[data-row]')];
const fieldOf = (row) => row.querySelector('[data-key]');
const wasOf = (row) => row.querySelector('[name^="was:"]')?.value;
const isEdited = (row) => !fieldOf(row).readOnly && fieldOf(row).value !== wasOf(row);

function note(row, text) {
    const id = `e-${row.closest('form').id}-${row.dataset.row}`;
    let place = document.getElementById(id);
    if (!place) {
        place = document.createElement('small');
        place.id = id;
        place.dataset.elsewhere = '';
        row.append(place);
        fieldOf(row).setAttribute('aria-describedby', id);
    }
    place.textContent = text;
}

// Takes what the server has drawn for a row that nobody has typed into. The field stays the same element: it may have
// the focus.
function renew(row, fresh) {
    const [field, other] = [fieldOf(row), fieldOf(fresh)];
    if (field.tagName !== other.tagName || field.readOnly !== other.readOnly) {
        const hadFocus = field === document.activeElement;
        row.replaceWith(fresh);
        if (hadFocus) {
            other.focus({preventScroll: true});
        }
        return;
    }
    if (field.value !== other.value) {
        const {selectionStart, selectionEnd} = field;
        field.value = other.value;
        if (field === document.activeElement) {
            field.setSelectionRange(selectionStart, selectionEnd);
        }
    }
    const parts = 'small, [type="hidden"]';
    row.querySelectorAll(parts).forEach((part) => part.remove());
    row.append(...fresh.querySelectorAll(parts));
    const described = other.getAttribute('aria-describedby');
    if (described === null) {
        field.removeAttribute('aria-describedby');
    } else {
        field.setAttribute('aria-describedby', described);
    }
}

// Brings a row up to date. "sent" is what the form has sent for it, if the fresh row answers that.
function updateRow(row, fresh, sent) {
    const field = fieldOf(row);
    const isTouched = sent === undefined ? isEdited(row) : field.value !== sent;
    if (!isTouched || field.value === wasOf(fresh)) {
        renew(row, fresh);
    } else if (sent === undefined) {
        if (wasOf(fresh) === wasOf(row)) {
            row.querySelector('[data-elsewhere]')?.remove();
        } else {
            note(row, `Changed elsewhere to “${fieldOf(fresh).value}”.`);
        }
    } else {
        row.querySelector('[name^="was:"]')?.replaceWith(fresh.querySelector('[name^="was:"]') ?? '');
    }
}

function eraseRow(row, isAnswer) {
    if (isAnswer || (!isEdited(row) && fieldOf(row) !== document.activeElement)) {
        row.remove();
    } else {
        note(row, 'Erased elsewhere.');
    }
}

// --- The form of a group

// Brings a form up to date. "sent" holds what was sent, by the names of the fields, if the fresh form answers that.
function updateForm(form, fresh, sent) {
    const old = new Map(rowsOf(form).map((row) => [row.dataset.row, row]));
    const freshRows = rowsOf(fresh);
    let before = form.querySelector('[name="digest"]');
    for (const freshRow of freshRows) {
        const key = freshRow.dataset.row;
        const row = old.get(key);
        old.delete(key);
        if (row) {
            updateRow(row, freshRow, sent && (sent.get(`now:${key}`) ?? fieldOf(row).value));
            before = freshRow.isConnected ? freshRow : row;
        } else {
            before.after(freshRow);
            before = freshRow;
        }
    }
    old.forEach((row) => eraseRow(row, sent !== undefined));
    form.dataset.digest = fresh.dataset.digest;
    form.querySelector('[name="digest"]').value = fresh.dataset.digest;
    form.querySelector('[data-missing]')?.remove();
    const missing = fresh.querySelector('[data-missing]');
    const save = form.querySelector('[data-action="save"]');
    if (missing) {
        save.before(missing);
    }
    if (sent) {
        form.querySelector('[data-conflict]')?.remove();
        const conflict = fresh.querySelector('[data-conflict]');
        if (conflict) {
            conflict.removeAttribute('autofocus');
            save.after(conflict);
            conflict.focus();
        }
        for (const name of ['new-key', 'new-value']) {
            const [field, other] = [form.querySelector(`[name="${name}"]`), fresh.querySelector(`[name="${name}"]`)];
            if (field && field.value === sent.get(name)) {
                field.value = other.value;
            }
        }
    }
}

function insertForm(form) {
    const next = [...list.querySelectorAll('form')].find((other) => other.id > form.id || other.id === 'new-group');
    list.insertBefore(form, next ?? null);
}

// A group that others have erased while somebody was typing stays, so that the text does.
function eraseForm(form, isAnswer) {
    const isInUse = form.contains(document.activeElement) || rowsOf(form).some(isEdited);
    if (isAnswer || !isInUse || form.hasAttribute('data-erased')) {
        form.remove();
    } else {
        rowsOf(form).forEach((row) => eraseRow(row, false));
        form.dataset.digest = '';
        form.querySelector('[name="digest"]').value = '';
    }
}

// --- The page

let wasAway = false;  // and the page says so
let failed = '';      // what it said before, and says again when that is over
const list = globalThis.document?.getElementById('groups');
const idOf = (form) => form.id.slice('g-'.length);
const groupOf = (form) => idOf(form).split('.')[0];
const formsOf = (root) => [...root.querySelectorAll('main > form[id^="g-"]')];

const placeOf = (role) => document.querySelector(`[role="${role}"]`);
const said = (role) => placeOf(role).textContent;

function say(role, text) {
    const place = placeOf(role);
    if (place.textContent !== text) {
        place.textContent = text;
    }
}

// Takes over the forms of a page that was drawn for these groups; null: for all.
function take(page, groups, form, sent) {
    const fresh = new Map(formsOf(page).map((other) => [other.id, other]));
    for (const old of formsOf(document)) {
        if (groups && !groups.includes(groupOf(old))) {
            continue;
        }
        const other = fresh.get(old.id);
        if (other && other.hasAttribute('data-group') === old.hasAttribute('data-group')) {
            fresh.delete(old.id);
            if (old.hasAttribute('data-group')) {
                updateForm(old, other, old === form ? sent : undefined);
            }
        } else {
            eraseForm(old, old === form);
        }
    }
    for (const other of fresh.values()) {
        if (!document.getElementById(other.id)) {
            insertForm(other);
        }
    }
    filter();
}

async function fetchPage(address, options) {
    const answer = await fetch(address, options).catch(() => {
        wasAway = true;
        throw new Error(`${NO_WEB_SERVER} ${KEPT}`);
    });
    const page = new DOMParser().parseFromString(await answer.text(), 'text/html');
    if (!page.querySelector('main')) {
        throw new Error(`The web server has answered with another page. Reload this one. ${KEPT}`);
    }
    const [success, failure] = ['status', 'alert'].map((role) => page.querySelector(`[role="${role}"]`)?.textContent ?? '');
    return {answer, page, success, failure};
}

function hexOf(text) {
    return [...new TextEncoder().encode(text)].map((byte) => byte.toString(16).padStart(2, '0')).join('');
}

function addressOf(groups) {
    return groups.length > MOST_NAMES ? './' : `./?${groups.map((name) => `group[]=${name}`).join('&')}`;
}

// One exchange at a time, so that what is older never replaces what is newer.
let queue = Promise.resolve();
const inTurn = (job) => (queue = queue.then(job).catch((error) => say('alert', String(error.message))));

let latest;

async function catchUp() {
    const state = latest;
    latest = undefined;
    if (!state) {
        return;
    }
    if (state.trouble !== '') {
        failed = wasAway ? failed : said('alert');
        wasAway = true;
        say('alert', `${state.trouble} ${KEPT}`);
        return;
    }
    if (list.hasAttribute('data-away')) {
        location.reload();  // there is nothing on this page yet
        return;
    }
    if (wasAway) {
        wasAway = false;
        say('alert', failed);
        say('status', 'Connected again.');
    }
    const drawn = new Map(formsOf(document).map((form) => [groupOf(form), form.dataset.digest ?? '']));
    const isPartial = document.querySelector('[data-partial]') !== null;
    const names = new Set([...drawn.keys(), ...(isPartial ? [] : Object.keys(state.groups))]);
    const changed = [...names].filter((name) => (state.groups[name] ?? '') !== (drawn.get(name) ?? ''));
    if (changed.length > 0) {
        const {answer, page} = await fetchPage(addressOf(changed));
        if (answer.ok) {
            take(page, changed.length > MOST_NAMES ? null : changed);
        }
    }
}

async function submit(form, button) {
    const fields = new FormData(form, button);
    const isNew = form.id === 'new-group';
    if (!['erase', 'restore'].includes(button?.value)) {
        rowsOf(form).filter((row) => !isEdited(row)).forEach((row) => {
            fields.delete(`was:${row.dataset.row}`);
            fields.delete(`now:${row.dataset.row}`);
        });
    }
    const sent = new Map([...form.querySelectorAll('[name]')].map((field) => [field.name, field.value]));
    const group = isNew ? hexOf(fields.get('new-group')) : groupOf(form);
    say('status', '');
    say('alert', '');
    failed = '';
    const request = {method: 'POST', body: new URLSearchParams(fields)};
    const {answer, page, success, failure} = await fetchPage(addressOf([group]), request);
    wasAway = answer.status === 503;
    if (isNew && failure === '') {
        form.reset();
    }
    if (formsOf(page).length > 0 || failure === '') {
        take(page, [group], form, sent);
    }
    if (document.activeElement === document.body) {  // what had the focus is gone
        (document.getElementById(form.id)?.querySelector('button') ?? searchField()).focus();
    }
    say('status', success);
    say('alert', failure);
}

// --- The filter

const searchField = () => document.querySelector('input[type="search"]');
const names = new WeakMap();

function namesOf(form) {
    const fields = [...form.querySelectorAll('[data-key]')];
    const known = names.get(form);
    if (known?.count === fields.length) {
        return known.text;
    }
    const name = form.dataset.group ?? form.dataset.erased;
    const text = [name, ...fields.map((field) => field.dataset.key)].join('\n').toLowerCase();
    names.set(form, {text, count: fields.length});
    return text;
}

function filter() {
    const search = searchField();
    if (!search || document.querySelector('[data-partial]')) {
        return;
    }
    const wanted = search.value.toLowerCase();
    const forms = formsOf(document);
    let found = 0;
    for (const form of forms) {
        const isFound = namesOf(form).includes(wanted) || form.contains(document.activeElement);
        found += isFound ? 1 : 0;
        if (form.hidden === isFound) {
            form.hidden = !isFound;
        }
    }
    const count = document.getElementById('count');
    const text = wanted === '' ? '' : `${found} of ${forms.length} groups`;
    if (count.textContent !== text) {
        count.textContent = text;
    }
}

function enhance() {
    document.addEventListener('submit', (event) => {
        if (event.target.method === 'post') {
            event.preventDefault();
            inTurn(() => submit(event.target, event.submitter));
        }
    });
    searchField()?.addEventListener('input', filter);
    listen((state) => {
        latest = state;
        inTurn(catchUp);
    });
}

if (globalThis.document) {
    enhance();
} else {
    serveTabs();
}

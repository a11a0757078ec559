// The parts of the page that are always the same. The browser runs this script and no other: the page's policy names it
// by its hash, which a test compares.
#pragma once

namespace vdctl {

inline constexpr char page_style_hash[] = "sha256-1tV/5EtdMlzaD94onyT6ewsfYZlO7NVub4cZl9BWnJk=";
inline constexpr char page_script_hash[] = "sha256-kUEf3MvHC5ZQyQ5xsGh/f1kYFyzBbxzXGCLtx+3DR7c=";

inline constexpr char page_style[] = R"css(
:root { color-scheme: light dark; --line: #8884; --open: #0a7a3d; --closed: #b3261e; }
@media (prefers-color-scheme: dark) { :root { --open: #6fd79a; --closed: #ff9a91; } }
* { box-sizing: border-box; }
body { font: 16px/1.4 system-ui, sans-serif; margin: 0 auto; max-width: 70rem; padding: 0 1rem 4rem; }
h1 { font-size: 1.3rem; margin: 1rem 0 0; overflow-wrap: anywhere; }
p { margin: .3rem 0; }
form { position: sticky; top: 0; background: Canvas; display: flex; flex-wrap: wrap; gap: .5rem 1rem; padding: .6rem 0;
       border-bottom: 1px solid var(--line); }
label { flex: 1 1 14rem; font-size: .85rem; }
input { display: block; width: 100%; font: inherit; padding: .4rem; }
details { border-bottom: 1px solid var(--line); }
summary { padding: .6rem 0; cursor: pointer; overflow-wrap: anywhere; }
summary span { opacity: .7; margin-left: .5rem; white-space: nowrap; }
table { border-collapse: collapse; width: 100%; margin: 0 0 1rem; }
th, td { text-align: left; vertical-align: top; padding: .25rem .6rem .25rem 0; border-top: 1px solid var(--line);
         overflow-wrap: anywhere; }
th { white-space: nowrap; }
th:first-child, td:first-child { width: 4rem; }
th:nth-child(3), td:nth-child(3) { width: 7rem; white-space: nowrap; }
th:last-child, td:last-child { width: 30%; }
td.open { color: var(--open); }
td.closed { color: var(--closed); font-weight: bold; }
@media (max-width: 40rem) {
    table { font-size: .85rem; }
    th:first-child, td:first-child { width: 3rem; }
    th:nth-child(3), td:nth-child(3) { width: 5.5rem; }
    th:last-child, td:last-child { width: 5.5rem; }
}
button { font: inherit; padding: .4rem 1rem; margin: .5rem 0; }
)css";

inline constexpr char page_script[] = R"js(
'use strict';
const data = JSON.parse(document.getElementById('data').textContent);
const peerField = document.getElementById('peer'), targetField = document.getElementById('target');
const list = document.getElementById('rows'), count = document.getElementById('count');
const cardsAtOnce = 50, linesAtOnce = 200, openAtOnce = 500, namesAtOnce = 6;
const states = {open: '\u25cf open', closed: '\u25cb closed', 'not asked': '\u25cc not asked'};

function add(parent, name, text, className) {
    const element = document.createElement(name);
    if (text !== undefined) element.textContent = text;
    if (className) element.className = className;
    parent.appendChild(element);
    return element;
}

function counted(number, what) { return number + ' ' + what + (number === 1 ? '' : 's'); }

// An address as a number, so that a range is found by what lies in it.
function addressOf(text) {
    const bytes = /^\d+(\.\d+){3}$/.test(text) ? text.split('.').map(Number)
        : /^[0-9a-f]{2}(:[0-9a-f]{2}){5}$/.test(text) ? text.split(':').map(x => parseInt(x, 16)) : null;
    return bytes && {type: bytes.length === 4 ? 'ip' : 'mac', value: bytes.reduce((sum, byte) => sum * 256 + byte, 0)};
}

function targetFilter(text) {
    const address = addressOf(text);
    return ([type, target, , , first, last]) => target.toLowerCase().includes(text) ||
        (address !== null && address.type === type && first <= address.value && address.value <= last);
}

function more(parent, left, what, show) {
    const button = add(parent, 'button', 'Show more (' + counted(left, what) + ' left)');
    button.type = 'button';
    button.addEventListener('click', () => { button.remove(); show(); });
}

function fill(card, row, extents) {
    if (row.p.length > namesAtOnce) add(card, 'p', row.p.join(', '));
    if (!row.x) add(card, 'p', 'A netmask here has gaps: other addresses of its network may be in another state.');
    const table = add(card, 'table'), head = add(add(table, 'thead'), 'tr'), body = add(table, 'tbody');
    for (const title of ['Type', 'Target', 'Now', 'Zone:line']) add(head, 'th', title).scope = 'col';
    const show = from => {
        for (const [type, target, now, zones] of extents.slice(from, from + linesAtOnce)) {
            const line = add(body, 'tr');
            add(line, 'td', type);
            add(line, 'td', target);
            add(line, 'td', states[now], now.replace(' ', '-'));
            add(line, 'td', zones);
        }
        if (extents.length > from + linesAtOnce)
            more(card, extents.length - from - linesAtOnce, 'target', () => show(from + linesAtOnce));
    };
    show(0);
}

function addCard({row, extents}, isOpen) {
    const card = add(list, 'details'), closed = extents.filter(extent => extent[2] === 'closed').length;
    const names = row.p.slice(0, namesAtOnce).join(', ') +
        (row.p.length > namesAtOnce ? ' and ' + (row.p.length - namesAtOnce) + ' more' : '');
    const summary = add(card, 'summary', names);
    add(summary, 'span', counted(extents.length, 'target') + (closed ? ', ' + closed + ' closed' : ''));
    card.addEventListener('toggle', () => fill(card, row, extents), {once: true});
    if (isOpen) card.open = true;
}

function update() {
    const peer = peerField.value.trim().toLowerCase(), target = targetField.value.trim().toLowerCase();
    const matches = targetFilter(target), found = [];
    let lines = 0;
    const isMatch = data.extents.map(extent => target === '' || matches(extent));
    for (const row of data.rows) {
        if (peer !== '' && !row.p.some(name => name.toLowerCase().includes(peer))) continue;
        const extents = row.r.filter(index => isMatch[index]).map(index => data.extents[index]);
        if (target !== '' && extents.length === 0) continue;
        lines += extents.length;
        found.push({row, extents});
    }
    const peers = found.reduce((sum, {row}) => sum + row.p.length, 0);
    count.textContent = counted(peers, 'peer') + ', ' + counted(lines, 'target') +
        '; peers that reach the same share a row';
    list.textContent = '';
    const show = from => {
        for (const one of found.slice(from, from + cardsAtOnce)) addCard(one, lines <= openAtOnce);
        if (found.length > from + cardsAtOnce)
            more(list, found.length - from - cardsAtOnce, 'row', () => show(from + cardsAtOnce));
    };
    show(0);
}

let waiting;
for (const field of [peerField, targetField])
    field.addEventListener('input', () => { clearTimeout(waiting); waiting = setTimeout(update, 150); });
document.getElementById('filter').addEventListener('submit', event => event.preventDefault());
update();
)js";

} // namespace vdctl

#!/usr/bin/env python3
"""Usage: picture.py [--check] SVG STORY...

Runs the story in a terminal of 80 columns and 40 lines and makes the picture of it. With --check the
picture that is there must show the same, but for times and rates.
"""
import fcntl
import html
import os
import pty
import re
import struct
import subprocess
import sys
import termios
import unicodedata

COLUMNS, LINES = 80, 40
WIDE, HIGH, EDGE = 8.43, 19, 14  # of a character of 14 px, and around all
COLORS = {"1;31": "#ff7b72", "36": "#56d4dd", "1;34": "#79c0ff", "33": "#e3b341", "32": "#7ee787",
          "2": "#8b949e", "1": "#ffffff"}
ESCAPE = re.compile(r"\x1b\[([0-9;]*)([mK])")


def run(story):
    """What the story writes to its terminal."""
    ours, theirs = pty.openpty()
    fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", LINES, COLUMNS, 0, 0))
    environment = {**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8"}
    environment.pop("NO_COLOR", None)
    process = subprocess.Popen(story, stdin=theirs, stdout=theirs, stderr=theirs, env=environment)
    os.close(theirs)
    text = b""
    while True:
        try:
            part = os.read(ours, 65536)
        except OSError:  # the last one has closed the terminal
            break
        if not part:
            break
        text += part
    if process.wait() != 0:
        sys.exit(f"the story ended with {process.returncode}:\n{text.decode(errors='replace')}")
    return text.decode()


def lines_of(text):
    """The lines as lists of (colour, text)."""
    lines = []
    color = ""
    for line in text.replace("\r\n", "\n").rstrip("\n").split("\n"):
        line = line.rsplit("\r", 1)[-1]  # a progress line is replaced by the next
        spans, at = [], 0
        for escape in ESCAPE.finditer(line):
            spans.append((color, line[at:escape.start()]))
            at = escape.end()
            if escape[2] == "m":
                color = "" if escape[1] in ("", "0") else escape[1]
        spans.append((color, line[at:]))
        lines.append([span for span in spans if span[1]])
    return lines


def plain(line):
    return "".join(text for _, text in line)


def check_size(lines):
    if len(lines) > LINES:
        sys.exit(f"the story has {len(lines)} lines, more than {LINES}")
    for line in lines:
        if len(plain(line)) > COLUMNS:
            sys.exit(f"this line is wider than {COLUMNS} columns: {plain(line)}")
        for character in plain(line):
            if unicodedata.category(character).startswith("C"):
                sys.exit(f"a control character in: {plain(line)!r}")


def picture(lines):
    width, height = COLUMNS * WIDE + 2 * EDGE, (len(lines) + 1) * HIGH + 2 * EDGE
    rows = []
    for number, line in enumerate(lines):
        spans = "".join(
            f'<tspan fill="{COLORS[color]}">{html.escape(text)}</tspan>' if color else
            html.escape(text) for color, text in line)
        if spans:
            top = EDGE + (number + 2) * HIGH - 5
            rows.append(f'<text x="{EDGE}" y="{top}">{spans}</text>')
    dots = "".join(f'<circle cx="{EDGE + 6 + 18 * i}" cy="16" r="5" fill="{color}"/>'
                   for i, color in enumerate(("#ff5f57", "#febc2e", "#28c840")))
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" '
            f'width="{width:.0f}" height="{height}" role="img" '
            'aria-label="A terminal: a server, three clients and the tolk command">\n'
            f'<rect width="100%" height="100%" rx="8" fill="#0d1117"/>\n{dots}\n'
            '<g font-family="ui-monospace, DejaVu Sans Mono, monospace" font-size="14" '
            'fill="#d0d7de" xml:space="preserve">\n' + "\n".join(rows) + "\n</g>\n</svg>\n")


def without_times(text):
    """Without times and rates, and what depends on how long their texts are."""
    return re.sub(r"=+", "=", re.sub(r" *[0-9.]+ (ms|([kMG]?B|bytes)/s)", " #", text))


def main(words):
    check = words[:1] == ["--check"]
    path, *story = words[1:] if check else words
    lines = lines_of(run(story))
    check_size(lines)
    made = picture(lines)
    if not check:
        with open(path, "w", encoding="utf-8") as file:
            file.write(made)
        return
    with open(path, encoding="utf-8") as file:
        kept = file.read()
    if without_times(kept) != without_times(made):
        sys.exit(f"{path} does not show what the demo prints:\n" + "\n".join(map(plain, lines)) +
                 "\n\nscripts/demo --picture makes it again")


if __name__ == "__main__":
    main(sys.argv[1:])

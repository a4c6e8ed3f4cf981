#!/usr/bin/env python3
"""Draws a session at a prompt as SVG.

    terminal_picture.py PROGRAM SESSION RESULT

Runs a shell that finds PROGRAM in a terminal of its own (tmux), types the lines of SESSION one by
one, each when a prompt is back, and draws what is on the screen at the end. In SESSION a line "#columns 90" sets the
width, "#wait TEXT" waits until TEXT has appeared, and other lines that begin with "#" are left out.
"""
import html
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

LIMIT_SECONDS = 30
ROWS = 200
PROMPT = re.compile(r"^(\$|[\w.:@/-]*>) ")
FONT_SIZE, CELL_WIDTH, LINE_HEIGHT, MARGIN = 13, 7.83, 18, 16
BACKGROUND, FOREGROUND = "#1b1f27", "#d6dae2"
COLOURS = ["#1b1f27", "#e06c75", "#98c379", "#e5c07b", "#61afef", "#c678dd", "#56b6c2", "#d6dae2",
           "#7f8694", "#ff8a93", "#b4e094", "#ffdd94", "#86c5ff", "#e39af7", "#7adce7", "#ffffff"]


class Terminal:
    """A program on a screen of `columns` by ROWS cells."""

    def __init__(self, program, columns, folder):
        self._socket = os.path.join(folder, "tmux")
        path = os.path.dirname(program) + ":" + os.environ["PATH"]
        environment = ["-e", "HOME=" + folder, "-e", "XDG_DATA_HOME=" + folder,
                       "-e", "LC_ALL=C.UTF-8", "-e", "TZ=UTC"]
        self._call("-f", os.devnull, "new-session", "-d", "-x", str(columns), "-y", str(ROWS),
                   "-c", folder, *environment,
                   f"exec env 'PS1=$ ' 'PATH={path}' bash --norc --noprofile")

    def _call(self, *arguments):
        done = subprocess.run(["tmux", "-S", self._socket, *arguments], check=True,
                              stdout=subprocess.PIPE, encoding="utf-8")
        return done.stdout

    def type(self, line):
        # At the end of a word a semicolon would end tmux's own command.
        self._call("send-keys", "-l", re.sub(";$", r"\\;", line))
        self._call("send-keys", "Enter")

    def screen(self, *options):
        return self._call("capture-pane", "-p", "-N", *options).split("\n")

    def wait(self, what, is_there):
        end = time.monotonic() + LIMIT_SECONDS
        while not is_there():
            if time.monotonic() > end:
                sys.exit(f"{what} did not appear:\n" + "\n".join(self.screen()))
            time.sleep(0.05)

    def wait_for_prompt(self, count):
        """Waits until the cursor stands behind the prompt of that number."""
        def is_back():
            column, row = map(int, self._call(
                "display-message", "-p", "#{cursor_x} #{cursor_y}").split())
            lines = self.screen()
            prompts = sum(1 for line in lines if PROMPT.match(line))
            return prompts >= count and PROMPT.fullmatch(lines[row][:column])
        self.wait("the prompt", is_back)

    def close(self):
        subprocess.run(["tmux", "-S", self._socket, "kill-server"], check=False)


def run(program, session):
    columns = 90
    with open(session, encoding="utf-8") as file:
        lines = file.read().splitlines()
    for line in lines:
        if line.startswith("#columns "):
            columns = int(line.split()[1])
    folder = tempfile.mkdtemp()
    terminal = Terminal(program, columns, folder)
    try:
        prompts = 1
        terminal.wait_for_prompt(prompts)
        for line in lines:
            if line.startswith("#wait "):
                text = line[len("#wait "):]
                terminal.wait(text, lambda: any(text in shown for shown in terminal.screen()))
            elif not line.startswith("#"):
                terminal.type(line)
                prompts += 1
                terminal.wait_for_prompt(prompts)
        return columns, terminal.screen("-e")
    finally:
        terminal.close()
        shutil.rmtree(folder, ignore_errors=True)


def pieces(line):
    """The texts of a line with column, colour and weight, from the terminal's control sequences."""
    column, colour, bold = 0, FOREGROUND, False
    for text, codes in re.findall(r"([^\x1b]+)|\x1b\[([\d;]*)m", line):
        if text:
            yield column, text, colour, bold
            column += len(text)
            continue
        for code in (int(number or 0) for number in codes.split(";")):
            if code == 0:
                colour, bold = FOREGROUND, False
            elif code == 1:
                bold = True
            elif code == 39:
                colour = FOREGROUND
            elif 30 <= code <= 37:
                colour = COLOURS[code - 30]
            elif 90 <= code <= 97:
                colour = COLOURS[code - 82]


def drawn(columns, lines):
    width = columns * CELL_WIDTH + 2 * MARGIN
    height = len(lines) * LINE_HEIGHT + 2 * MARGIN
    svg = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:.0f}" height="{height:.0f}" '
           f'viewBox="0 0 {width:.0f} {height:.0f}" role="img">',
           "<title>vext-run at work in a terminal</title>",
           f'<rect width="100%" height="100%" rx="8" fill="{BACKGROUND}"/>',
           f'<g font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="{FONT_SIZE}" '
           'xml:space="preserve">']
    for row, line in enumerate(lines):
        y = MARGIN + (row + 0.75) * LINE_HEIGHT
        for column, text, colour, bold in pieces(line):
            shown = text.rstrip()
            if not shown:
                continue
            weight = ' font-weight="bold"' if bold else ""
            svg.append(f'<text x="{MARGIN + column * CELL_WIDTH:.1f}" y="{y:.1f}" fill="{colour}"{weight} '
                       f'textLength="{len(shown) * CELL_WIDTH:.1f}" lengthAdjust="spacingAndGlyphs">'
                       f"{html.escape(shown)}</text>")
    svg += ["</g>", "</svg>", ""]
    return "\n".join(svg)


def main():
    program, session, result = sys.argv[1:]
    columns, lines = run(os.path.abspath(program), session)
    while lines and not re.sub(r"\x1b\[[\d;]*m", "", lines[-1]).strip():
        lines.pop()
    # The prompt that waits for the next line says nothing.
    if lines and PROMPT.fullmatch(re.sub(r"\x1b\[[\d;]*m", "", lines[-1]).rstrip() + " "):
        lines.pop()
    with open(result, "w", encoding="utf-8") as file:
        file.write(drawn(columns, lines))


if __name__ == "__main__":
    main()

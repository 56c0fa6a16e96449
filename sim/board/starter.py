"""The unit's starter, which the board runs at every boot: a shell script whose line
TOV_BIN_NAME=NAME names the program in /home/TOV it starts. The harness reads and rewrites that
line here only."""

PATH = "/home/TOV/tov_starter"
KEY = b"TOV_BIN_NAME="


def _lines(text):
    return (text.encode() if isinstance(text, str) else text).split(b"\n")


def program(text):
    """The program the starter TEXT (bytes or str) names: its first TOV_BIN_NAME line's value,
    or "" when it has none."""
    for line in _lines(text):
        if line.startswith(KEY):
            return line[len(KEY):].strip().decode("utf-8", "replace")
    return ""


def line_of(name):
    return (KEY + name.encode()).decode()


def naming(text, name):
    """The starter TEXT (bytes) with its program line naming NAME instead, as the bench rewrites
    it at the hand-over."""
    return b"\n".join(line_of(name).encode() if line.startswith(KEY) else line for line in _lines(text))

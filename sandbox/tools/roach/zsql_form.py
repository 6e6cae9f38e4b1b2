"""What the clients called zsql have in common: how a login is written, and how rows are shown."""
import re

from roach.cluster import Tool_Error


def split_login(arguments, roles):
    """The login and the options behind it. None for a login of the operating system's user.

    @param roles  those that such a user may log in as
    """
    if arguments[:2] == ["/", "as"] and len(arguments) > 2:
        if arguments[2] not in roles:
            raise Tool_Error("GS-00601, Sql syntax error: %s expected" % " or ".join(roles))
        return None, arguments[3:]
    found = re.fullmatch(r"(\w+)(?:/(.*))?@([\w.]+):(\d+)", arguments[0] if arguments else "")
    if not found:
        raise Tool_Error("GS-00601, Sql syntax error: user@host:port expected")
    return found.groups(), arguments[1:]


def table(rows):
    """Rows under heads, with a rule between them and the count behind them.

    @param rows  lists of fields, the heads first
    """
    heads, rows = rows[0], rows[1:]
    widths = [max(20, *(len(row[column]) for row in [heads] + rows)) for column in range(len(heads))]

    def line(fields):
        return " ".join(field.ljust(width) for field, width in zip(fields, widths))
    lines = ["", line(head.upper() for head in heads), " ".join("-" * width for width in widths)]
    return "\n".join(lines + [line(row) for row in rows] + ["", "%d rows fetched." % len(rows), ""])

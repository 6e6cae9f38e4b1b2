"""Command lines as the cluster's tools take them: unknown options are refused in their words."""
import getopt

from roach.cluster import Tool_Error


def parse(arguments, short, long_names):
    """A list of (option, value) and the remaining words. Raises Tool_Error. Long names are never
    accepted shortened."""
    try:
        options, rest = getopt.gnu_getopt(arguments, short, long_names)
    except getopt.GetoptError as error:
        raise Tool_Error("[GAUSS-50000] : Unrecognized parameter: %s" % error)
    known = {"--" + name.rstrip("=") for name in long_names}
    for given in arguments:
        name = given.split("=", 1)[0]
        if name.startswith("--") and len(name) > 2 and name not in known:
            raise Tool_Error("[GAUSS-50000] : Unrecognized parameter: %s" % name)
    if rest:
        raise Tool_Error("[GAUSS-50000] : Unrecognized parameter: %s" % rest[0])
    return options


def only(given, action, allowed):
    """Refuses what does not belong to an action."""
    for name in given:
        if name not in allowed:
            raise Tool_Error("[GAUSS-50002] : Incorrect parameter. Parameter '%s' is not of the action "
                             "%s." % (name, action))


def main(name, run, arguments):
    """Runs a tool and turns its failure into the tool's message and exit status 1."""
    import sys
    try:
        return run(arguments) or 0
    except Tool_Error as error:
        print(error, file=sys.stderr)
        return 1
    except BrokenPipeError:
        return 1

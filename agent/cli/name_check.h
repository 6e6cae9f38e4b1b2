#ifndef AGENT_CLI_NAME_CHECK_H
#define AGENT_CLI_NAME_CHECK_H

#include "qmrt/names.h"

#include <CLI/CLI.hpp>
#include <string>

/** Refuses what no name of a kind can be, before the agent is asked. */
inline CLI::Validator name_check(names::Rule rule) {
    return CLI::Validator(
        [rule](std::string const& name) {
            std::string const fault = rule(name);
            return fault.empty() ? fault : "'" + names::shown(name) + "' " + fault;
        },
        "");
}

#endif

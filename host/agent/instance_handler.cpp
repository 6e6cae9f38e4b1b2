#include "host/agent/instance_handler.h"

int Instance_Handler::init(int, char**) {
    return 0;
}

int Instance_Handler::fini() {
    return 0;
}

int Instance_Handler::probe_instances(instances_type&) {
    return 0;
}

std::string& Instance_Handler::get_state(char const*, std::string& state) {
    return state = "error";
}

int Instance_Handler::get_states(states_type& states) {
    for (auto& [name, state] : states)
        get_state(name.c_str(), state);
    return 0;
}

int Instance_Handler::logon(char const*, char const*, char const*, json_spirit::Object const*) {
    return -1;
}

int Instance_Handler::logoff(char const*) {
    return 0;
}

int Instance_Handler::update_options(char const*, char const*, char const*, options_type&) {
    return 0;
}

std::vector<Instance_Alert> Instance_Handler::alerts() {
    return {};
}

void Instance_Handler::forget(char const*) {}

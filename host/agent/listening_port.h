#ifndef HOST_AGENT_LISTENING_PORT_H
#define HOST_AGENT_LISTENING_PORT_H

/**
 * True when some process of this network namespace listens on a TCP port, on any address of IPv4
 * or IPv6. Looks at the kernel's socket tables and connects to nobody. False also, after an error
 * line, when there are no tables to read.
 */
[[nodiscard]] bool check_port_listening(unsigned short port);

#endif

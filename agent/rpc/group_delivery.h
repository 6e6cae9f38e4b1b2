#ifndef AGENT_RPC_GROUP_DELIVERY_H
#define AGENT_RPC_GROUP_DELIVERY_H

class Method_Table;

inline constexpr char DELIVER[] = "group.deliver";

/**
 * Serves the last part of a call from one agent of the group to another:
 *
 *     group.deliver  {"method", "params", "key", "run": Run_Scope::dump()} -> what the method
 * answers
 *
 * The method is called on a thread that works for that run (see Host_Manager::access_key()), by a
 * caller of kind FORWARDED; the table's gate says which methods that may be.
 * @param methods  must outlive what it serves
 */
void serve_deliveries(Method_Table& methods);

#endif

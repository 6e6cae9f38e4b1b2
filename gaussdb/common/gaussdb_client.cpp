#include "gaussdb/common/gaussdb_client.h"

namespace {

char const* text_of(char const* text) {
    return text ? text : "";
}

} // namespace

GaussDB_Client::GaussDB_Client(GaussDB_Env const& env, char const* username, char const* password,
                               char const* db, unsigned short port, char const* os_user,
                               char const* host)
    : env_(env),
      username_(text_of(username)),
      password_(text_of(password)),
      db_(text_of(db)),
      port_(port),
      os_user_(text_of(os_user)),
      host_(text_of(host)) {}

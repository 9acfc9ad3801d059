// The roles of the family: names of log files and of configuration keys.
#ifndef TOOLS_ROLES_H
#define TOOLS_ROLES_H

#include <cstddef>
#include <cstdint>

namespace ctl {

struct Role {
  const char* name;
  uint32_t log_limit; // bytes of a log file
};

inline constexpr Role kRoles[] = {
    {"qntty", 65536}, {"hubd", 1572864},  {"leafd", 1572864},   {"admd", 1048576},      {"relay", 65536},
    {"arcd", 524288}, {"arc_tty", 65536}, {"lib_call", 131072}, {"nw_lib_call", 65536}, {"nil", 1048576},
};
constexpr unsigned kRoleCount = sizeof(kRoles) / sizeof(kRoles[0]);

// Null for no role.
const Role* find_role(const char* name, size_t length);

} // namespace ctl

#endif // TOOLS_ROLES_H

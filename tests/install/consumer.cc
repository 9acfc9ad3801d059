// A C++ program that uses an installed library: a table in a cycle's lifetime, and a random key. Prints
// what it found; the exit status is 0 only if all of it held.
#include <quillcore/quillcore.h>

#include <cstdio>
#include <cstring>
#include <memory>

int main() {
  const std::unique_ptr<qn_cycle_t, void (*)(qn_cycle_t*)> cycle(qn_cycle_new(), qn_cycle_free);
  if (!cycle) return 1;
  auto* const mac = static_cast<unsigned char*>(qn_pcalloc(cycle->pool, 6));
  if (qn_utils_char_to_mac("02:00:5e:10:00:01", mac) != 0) return 1;

  qn_table_t* table = _qn_table_new(10, nullptr, nullptr);
  _qn_table_put(table, "leaf", mac, nullptr);
  const bool found = qn_table_get(table, "leaf") == mac && mac[2] == 0x5e;
  qn_table_free(&table);

  char key[17];
  qn_generate_random_key(key, 16);
  QN_LOG_RECORD(QN_LOG_I, 9100, "consumer", "main", "library %s, key of %zu", QN_VERSION,
                std::strlen(key));
  std::printf("consumer: table %s, key of %zu\n", found ? "held" : "lost", std::strlen(key));
  return found && std::strlen(key) == 16 ? 0 : 1;
}

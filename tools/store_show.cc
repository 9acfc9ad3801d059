// quillctl store, store verify: one store as a person wants to see it.
#include <cstdio>
#include <cstring>

#include "command.h"
#include "output.h"
#include "processes.h"
#include "store_image.h"

namespace ctl {
namespace {

struct Judged {
  StoreImage image;
  Fault faults[kFaultsMax];
  size_t fault_count;
  Holders holders;
};

int load(const char* path, Judged* judged) {
  if (const int status = load_store(path, &judged->image, kFoundWrong)) return status;
  judged->fault_count = find_faults(judged->image, judged->faults);
  judged->holders = find_holders(path, judged->image.file);
  return kFine;
}

void print_holders(const Judged& judged) {
  if (judged.holders.count == 0) fputs("held by nobody that can be seen", stdout);
  for (unsigned i = 0; i < judged.holders.count; i++) {
    Process process;
    const bool lives = read_process(judged.holders.pids[i], &process);
    printf("%s%s (%d)", i == 0 ? "held by " : " and ", lives ? shown(process.program) : "?",
           judged.holders.pids[i]);
  }
  if (judged.holders.count > 1) fputs(": THEY OVERWRITE EACH OTHER", stdout);
}

unsigned busy_keys(const StoreImage& image, unsigned first, unsigned count) {
  unsigned busy = 0;
  for (unsigned i = first; i < first + count; i++) busy += store_key(image, i).busy;
  return busy;
}

void print_head(const Judged& judged) {
  const StoreImage& image = judged.image;
  printf("%zu%s bytes, version %u, ", image.size, image.longer ? " and more" : "", image.bytes[24]);
  print_holders(judged);
  const unsigned keys = busy_keys(image, 0, kStoreKeys);
  printf("; read only, %u key%s, %zu fault%s\n", keys, keys == 1 ? "" : "s", judged.fault_count,
         judged.fault_count == 1 ? "" : "s");
  if (image.unsteady) puts("It changes all the time: this may be of two moments.");
}

void print_classes(const StoreImage& image) {
  puts(" class  value bytes  used/32");
  for (unsigned value_class = 0; value_class < kStoreClasses; value_class++) {
    const StoreClass& row = kStoreClass[value_class];
    const unsigned used = busy_keys(image, row.first_key, row.keys);
    printf("%6u %6u..%-5u %-32s %u", value_class, value_min(value_class), value_max(value_class),
           bar(used, row.keys), used);
    if (row.keys != 32) printf(" of %u", row.keys);
    puts(used == row.keys ? ", full" : "");
  }
}

// The first fault of an entry, or null.
const Fault* fault_of(const Judged& judged, unsigned key_index) {
  for (size_t i = 0; i < judged.fault_count; i++) {
    if (judged.faults[i].key_index == key_index) return &judged.faults[i];
  }
  return nullptr;
}

// The busy entries in the order of their keys. Returns their number.
unsigned sort_keys(const StoreImage& image, uint8_t (&order)[kStoreKeys]) {
  unsigned count = 0;
  for (unsigned i = 0; i < kStoreKeys; i++) {
    const StoreKey key = store_key(image, i);
    if (!key.busy) continue;
    unsigned place = count++;
    for (; place > 0; place--) {
      const StoreKey before = store_key(image, order[place - 1]);
      if (strncmp(before.text, key.text, 31) <= 0) break;
      order[place] = order[place - 1];
    }
    order[place] = static_cast<uint8_t>(i);
  }
  return count;
}

void print_key(const Judged& judged, const StoreKey& key, bool values) {
  const Fault* const fault = fault_of(judged, key.index);
  printf("%-32s %5u  %5u%s ", shown(key.text, key.text_length), key.value_class, key.value_length,
         fault != nullptr ? "!" : " ");
  if (fault != nullptr) printf("%s ", kFaultTexts[fault->kind].name);
  if (key.value_length == 0) fputs("empty: a get is refused", stdout);
  if (values && key.is_given()) put_value(key.value, key.value_length);
  putchar('\n');
}

void json_key(Json* json, const Judged& judged, const StoreKey& key, bool values) {
  json->open('{');
  json->text("key", key.text, key.text_length);
  json->number("class", key.value_class);
  json->number("bytes", key.value_length);
  if (const Fault* const fault = fault_of(judged, key.index))
    json->text("fault", kFaultTexts[fault->kind].name);
  if (values && key.is_given()) json->bytes(key.value, key.value_length);
  json->close('}');
}

void json_head(Json* json, const char* path, const Judged& judged) {
  json->text("file", path);
  json->number("bytes", static_cast<long long>(judged.image.size));
  json->flag("longer", judged.image.longer);
  json->flag("unsteady", judged.image.unsteady);
  json->open('[', "holders");
  for (unsigned i = 0; i < judged.holders.count; i++) json->number(nullptr, judged.holders.pids[i]);
  json->close(']');
  json->number("faults", static_cast<long long>(judged.fault_count));
}

int show_one(const Judged& judged, const Arguments& arguments) {
  const char* const text = arguments.get('k');
  const int index = find_key(judged.image, text, strlen(text));
  if (index < 0) return fail(kFoundWrong, "no key is called %s", shown(text));
  const StoreKey key = store_key(judged.image, static_cast<unsigned>(index));
  if (!key.is_given()) {
    return fail(kFoundWrong, "%s: a get gives nothing, its length is %u", shown(text), key.value_length);
  }
  if (arguments.has('j')) {
    Json json;
    json_key(&json, judged, key, true);
    json.end_line();
  } else if (arguments.has('r')) {
    fwrite(key.value, 1, key.value_length, stdout);
  } else {
    put_value(key.value, key.value_length);
    putchar('\n');
  }
  return fault_of(judged, key.index) != nullptr ? kFoundWrong : kFine;
}

void print_fault(const StoreImage& image, const Fault& fault) {
  const FaultText& text = kFaultTexts[fault.kind];
  printf("BAD %6u  ", fault.offset);
  if (fault.key_index == kNoKey) {
    printf("%s", text.what);
  } else {
    const StoreKey key = store_key(image, fault.key_index);
    printf("%s, class %u: %s", key.busy ? shown(key.text, key.text_length) : "free entry",
           key.value_class, text.what);
  }
  printf("\n            %s\n", text.outcome);
}

void json_fault(Json* json, const StoreImage& image, const Fault& fault) {
  json->open('{');
  json->number("offset", fault.offset);
  if (fault.key_index != kNoKey) {
    const StoreKey key = store_key(image, fault.key_index);
    if (key.busy) json->text("key", key.text, key.text_length);
    json->number("class", key.value_class);
    json->number("entry", fault.key_index);
  }
  json->text("what", kFaultTexts[fault.kind].what);
  json->text("outcome", kFaultTexts[fault.kind].outcome);
  json->close('}');
}

} // namespace

int run_store(const Arguments& arguments) {
  const char* const path = arguments.words[0];
  if (arguments.has('r') && !arguments.has('k')) return fail(kUsage, "store: --raw goes with --key");
  if (arguments.has('r') && colours()) return fail(kUsage, "store: --raw is not for a terminal");
  const Owned<Judged> judged;
  if (const int status = load(path, judged.get())) return status;
  if (arguments.has('k')) return show_one(*judged, arguments);

  uint8_t order[kStoreKeys];
  const unsigned count = sort_keys(judged->image, order);
  const bool values = arguments.has('v');
  if (arguments.has('j')) {
    Json json;
    json.open('{');
    json_head(&json, path, *judged);
    json.open('[', "keys");
    for (unsigned i = 0; i < count; i++)
      json_key(&json, *judged, store_key(judged->image, order[i]), values);
    json.close(']');
    json.close('}');
    json.end_line();
  } else {
    print_head(*judged);
    print_classes(judged->image);
    printf("%-32s %5s  %5s  %s\n", "KEY", "CLASS", "BYTES",
           values ? "VALUE" : "VALUE (hidden: --values shows it)");
    for (unsigned i = 0; i < count; i++) print_key(*judged, store_key(judged->image, order[i]), values);
  }
  return judged->fault_count > 0 ? kFoundWrong : kFine;
}

int run_store_verify(const Arguments& arguments) {
  const char* const path = arguments.words[0];
  const Owned<Judged> judged;
  if (const int status = load(path, judged.get())) return status;
  if (arguments.has('j')) {
    Json json;
    json.open('{');
    json_head(&json, path, *judged);
    json.open('[', "damage");
    for (size_t i = 0; i < judged->fault_count; i++) json_fault(&json, judged->image, judged->faults[i]);
    json.close(']');
    json.close('}');
    json.end_line();
    return judged->fault_count > 0 ? kFoundWrong : kFine;
  }
  print_head(*judged);
  for (size_t i = 0; i < judged->fault_count; i++) print_fault(judged->image, judged->faults[i]);
  return judged->fault_count > 0 ? kFoundWrong : kFine;
}

} // namespace ctl

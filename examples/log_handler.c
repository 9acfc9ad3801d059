// The handler of hubd that changes what is logged while it runs.
#include <stddef.h>
#include <string.h>

#include "hubd.h"

#define FIELD(name) offsetof(qn_log_permit_config_t, name), sizeof(((qn_log_permit_config_t*)0)->name)

// The steps: how many words, and where the last one goes. Of four the third names what is switched.
static const struct step {
  const char* name;
  uint32_t words;
  uint32_t mask;
  size_t offset;
  size_t size;
} steps[] = {
    {"level", 3, QN_LOG_PERMIT_LEVEL, FIELD(level)},
    {"biz", 4, QN_LOG_PERMIT_BIZ, FIELD(permit)},
    {"logid", 4, QN_LOG_PERMIT_LOGID, FIELD(permit)},
    {"console", 3, QN_LOG_PERMIT_CONSOLE, FIELD(console_permit)},
    {"trace", 3, QN_LOG_PERMIT_TRACE, FIELD(trace_permit)},
};

static int fill_in(const struct step* step, const hub_words_t* words, qn_log_permit_config_t* config) {
  const qn_str_t* word = words->word;
  if (words->count != step->words) return -1;
  config->mask = step->mask;
  if (step->words == 4) {
    if (hub_copy_word(&word[2], config->biz_name, sizeof(config->biz_name)) != 0) return -1;
    config->logid = qn_str2num(word[2].data, 10); // 0 for what is no number
    if (step->mask == QN_LOG_PERMIT_LOGID && config->logid <= 0) return -1;
  }
  if (hub_copy_word(&word[1], config->role, sizeof(config->role)) != 0) return -1;
  return hub_copy_word(&word[step->words - 1], (char*)config + step->offset, (uint32_t)step->size);
}

static int parse(const hub_words_t* words, qn_log_permit_config_t* config) {
  memset(config, 0, sizeof(*config));
  config->reset = words->count == 1 && strcmp(words->word[0].data, "reset") == 0;
  if (config->reset) return 0;
  for (size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); i++) {
    if (strcmp(words->word[0].data, steps[i].name) == 0) return fill_in(&steps[i], words, config);
  }
  return -1;
}

int32_t handle_log(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  if (hub_refuse_others(req, "change the log", rsp_body, rsp_len) != 0) return -1;
  hub_words_t words;
  qn_log_permit_config_t config;
  hub_split(req, &words);
  if (parse(&words, &config) != 0) {
    return HUB_REFUSE(HUB_ERR_MALFORMED, "not a change of the log: %.20s", words.word[0].data);
  }
  if (qn_log_set_log_permit_config(&config) == 0) return 0;
  return HUB_REFUSE(HUB_ERR_LOG_CHANGE, "the log did not take the change");
}

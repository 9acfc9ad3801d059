// The size of each public structure, and offset and size of each of its fields, as the compiler of a
// target sees them. It is compiled to assembly and never run: each line of the list is a comment in
// there,
// ">NAME NUMBER" or ">NAME OFFSET SIZE".
#include <quillcore/quillcore.h>
#include <stddef.h>

#define TELL(name, number) __asm__ volatile("\n@>" name " %0" : : "i"(number))
#define SIZE(type) TELL(#type, sizeof(type))
#define FIELD(type, field)                          \
  __asm__ volatile("\n@>" #type "." #field " %0 %1" \
                   :                                \
                   : "i"(offsetof(type, field)), "i"(sizeof(((type*)0)->field)))

void layout(void);
void layout(void) {
  SIZE(qn_api_entry_t);
  FIELD(qn_api_entry_t, msg_src_mask);
  FIELD(qn_api_entry_t, msg_type);
  FIELD(qn_api_entry_t, handler);
  FIELD(qn_api_entry_t, instance);

  SIZE(qn_apis_t);
  FIELD(qn_apis_t, count);
  FIELD(qn_apis_t, rows);

  SIZE(qn_cycle_t);
  FIELD(qn_cycle_t, state);
  FIELD(qn_cycle_t, pool);
  FIELD(qn_cycle_t, worker_role);
  FIELD(qn_cycle_t, process_area);
  FIELD(qn_cycle_t, services);

  SIZE(qn_intf_eth_metric_t);
  FIELD(qn_intf_eth_metric_t, rx_packets);
  FIELD(qn_intf_eth_metric_t, rx_errors);
  FIELD(qn_intf_eth_metric_t, tx_packets);
  FIELD(qn_intf_eth_metric_t, tx_errors);
  FIELD(qn_intf_eth_metric_t, rx_bytes);
  FIELD(qn_intf_eth_metric_t, tx_bytes);

  SIZE(qn_log_permit_config_t);
  FIELD(qn_log_permit_config_t, role);
  FIELD(qn_log_permit_config_t, level);
  FIELD(qn_log_permit_config_t, permit);
  FIELD(qn_log_permit_config_t, logid);
  FIELD(qn_log_permit_config_t, biz_name);
  FIELD(qn_log_permit_config_t, console_permit);
  FIELD(qn_log_permit_config_t, trace_permit);
  FIELD(qn_log_permit_config_t, reset);
  FIELD(qn_log_permit_config_t, mask);

  SIZE(qn_child_proc_t);
  FIELD(qn_child_proc_t, entry);
  FIELD(qn_child_proc_t, name);
  FIELD(qn_child_proc_t, caller_words);
  FIELD(qn_child_proc_t, pid);
  FIELD(qn_child_proc_t, read_fd);
  FIELD(qn_child_proc_t, write_fd);

  SIZE(qn_msg_hdr_t);
  FIELD(qn_msg_hdr_t, msg_type);
  FIELD(qn_msg_hdr_t, msg_act);
  FIELD(qn_msg_hdr_t, msg_err);
  FIELD(qn_msg_hdr_t, msg_src);
  FIELD(qn_msg_hdr_t, msg_len);
  FIELD(qn_msg_hdr_t, msg_id);

  SIZE(qn_msg_req_t);
  FIELD(qn_msg_req_t, fd);
  FIELD(qn_msg_req_t, ctx);
  FIELD(qn_msg_req_t, msg_id);
  FIELD(qn_msg_req_t, msg_src);
  FIELD(qn_msg_req_t, msg_act);
  FIELD(qn_msg_req_t, body);
  FIELD(qn_msg_req_t, body_len);

  SIZE(qn_service_conf_t);
  FIELD(qn_service_conf_t, server_path);
  FIELD(qn_service_conf_t, backlog);
  FIELD(qn_service_conf_t, max_msg_len);
  FIELD(qn_service_conf_t, slot);

  SIZE(qn_str_t);
  FIELD(qn_str_t, len);
  FIELD(qn_str_t, data);
}

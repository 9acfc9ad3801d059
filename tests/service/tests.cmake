quill_test(service_parts_test service/event_base_test.cc service/socket_test.cc)
quill_test(service_test service/dispatch_test.cc service/lifecycle_test.cc)

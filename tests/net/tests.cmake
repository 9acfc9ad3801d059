quill_test(net_test net/net_test.cc)

quill_test(log_test log/files_test.cc log/permission_test.cc)

quill_test(proc_test proc/proc_test.cc)

# One program in which the n-th call of a libc function can be made to fail. The library is linked
# statically, so --wrap reaches its calls too. Functions that 64-bit offsets or 64-bit time rename are
# listed under each of their names; a name that nothing refers to does no harm.
quill_test(faults_test
  faults/base_faults_test.cc
  faults/proc_net_faults_test.cc
  faults/service_faults_test.cc
  faults/shim.cc
  faults/store_faults_test.cc
  faults/table.cc)
foreach(name
    malloc calloc strdup free memalign posix_memalign tsearch
    open open64 read write fsync lseek lseek64 ftruncate ftruncate64 close
    stat stat64 __stat64_time64
    fork execv execlp waitpid kill pipe2 dup2 popen fopen fopen64
    unlink access opendir readdir readdir64 ioctl __ioctl_time64
    fcntl fcntl64 __fcntl_time64 socket setsockopt __setsockopt64 bind listen connect accept
    epoll_create1 epoll_ctl epoll_wait
    pthread_create pthread_attr_init pthread_attr_setstacksize pthread_attr_destroy)
  target_link_options(faults_test PRIVATE -Wl,--wrap=${name})
endforeach()

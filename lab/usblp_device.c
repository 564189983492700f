/* A USB printer's device node for the lab: a FUSE file system that is one single file, mounted over
   /dev/usblpN, and answers the printer class driver's request for the IEEE 1284 device id. */

#define FUSE_USE_VERSION 35
#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <getopt.h>
#include <linux/ioctl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

enum { kDeviceIdSize = 512, kTypePrinter = 'P', kNumberGetDeviceId = 1 };

static const char* idPath; /* file with the answer, read at every request */
static int openError;      /* errno of every open, 0 = opens succeed */
static int requestError;   /* errno of every request, 0 = requests succeed */
static long delayMs;       /* time that the printer takes to answer */

static int GetAttributes(const char* path, struct stat* attributes, struct fuse_file_info* file) {
  (void)path;
  (void)file;
  memset(attributes, 0, sizeof *attributes);
  attributes->st_mode = S_IFREG | 0666;
  attributes->st_nlink = 1;
  return 0;
}

static int Open(const char* path, struct fuse_file_info* file) {
  (void)path;
  (void)file;
  return -openError;
}

static int Request(const char* path, unsigned int request, void* argument,
                   struct fuse_file_info* file, unsigned int flags, void* data) {
  (void)path;
  (void)argument;
  (void)file;
  (void)flags;
  if (_IOC_TYPE(request) != kTypePrinter || _IOC_NR(request) != kNumberGetDeviceId ||
      _IOC_DIR(request) != _IOC_READ || _IOC_SIZE(request) != kDeviceIdSize) {
    return -ENOTTY;
  }
  struct timespec delay = {delayMs / 1000, delayMs % 1000 * 1000000};
  nanosleep(&delay, NULL);
  if (requestError != 0) return -requestError;
  memset(data, 0, kDeviceIdSize);
  int id = open(idPath, O_RDONLY | O_CLOEXEC);
  if (id < 0) return -EIO;
  ssize_t length = read(id, data, kDeviceIdSize);
  close(id);
  return length < 0 ? -EIO : 0;
}

static const struct fuse_operations kOperations = {
    .getattr = GetAttributes, .open = Open, .ioctl = Request};

int main(int argc, char** argv) {
  static const struct option kOptions[] = {{"id", required_argument, NULL, 'i'},
                                           {"open-error", required_argument, NULL, 'o'},
                                           {"request-error", required_argument, NULL, 'r'},
                                           {"delay-ms", required_argument, NULL, 'd'},
                                           {NULL, 0, NULL, 0}};
  for (int option; (option = getopt_long(argc, argv, "", kOptions, NULL)) != -1;) {
    switch (option) {
      case 'i':
        idPath = optarg;
        break;
      case 'o':
        openError = atoi(optarg);
        break;
      case 'r':
        requestError = atoi(optarg);
        break;
      case 'd':
        delayMs = atol(optarg);
        break;
      default:
        return 2;
    }
  }
  if (idPath == NULL || optind != argc - 1) {
    fprintf(
        stderr,
        "usage: %s --id FILE [--open-error ERRNO] [--request-error ERRNO] [--delay-ms N] NODE\n",
        argv[0]);
    return 2;
  }
  char* mountArguments[] = {argv[0], NULL};
  struct fuse_args arguments = FUSE_ARGS_INIT(1, mountArguments);
  struct fuse* fuse = fuse_new(&arguments, &kOperations, sizeof kOperations, NULL);
  if (fuse == NULL || fuse_mount(fuse, argv[optind]) != 0) return 1;
  if (fuse_set_signal_handlers(fuse_get_session(fuse)) != 0) return 1;
  puts("ready");
  fflush(stdout);
  fuse_loop(fuse);
  fuse_unmount(fuse);
  fuse_destroy(fuse);
  return 0;
}

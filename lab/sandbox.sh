#!/bin/sh
# First process of a router's sandbox, run in fresh mount and process namespaces. It lays out what
# the router's programs see of /proc and /dev and then holds the namespaces until its standard
# input closes: when the lab ends, however it ends, the kernel ends everything in here with it.
set -e

# /proc: a real procfs of this process namespace, seen through links from a directory in which
# ordinary files can be made too. Processes beyond the linked numbers are found in .kernel only: the
# init script may run two thousand commands while it waits for one slow start.
mount -t tmpfs -o mode=755 lab-proc /proc
mkdir /proc/.kernel
mount -t proc proc /proc/.kernel
cd /proc
ln -s .kernel/[a-z]* .
seq -f .kernel/%g 1 4096 | xargs ln -s -t .
: > printer_status

# /dev: a private directory with the common nodes, so that printers come and go unseen outside.
mkdir .dev
mount -t tmpfs -o mode=755 lab-dev .dev
cp -a /dev/null /dev/zero /dev/full /dev/random /dev/urandom .dev/
for node in tty fuse; do
  [ ! -e /dev/$node ] || cp -a /dev/$node .dev/
done
ln -s /proc/self/fd .dev/fd
ln -s /proc/self/fd/0 .dev/stdin
ln -s /proc/self/fd/1 .dev/stdout
ln -s /proc/self/fd/2 .dev/stderr
mkdir -m 1777 .dev/shm
mount --move .dev /dev
rmdir .dev

echo ready
exec cat > /dev/null

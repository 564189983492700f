"""Whole routers for the lab's link: a kernel and a root file system in a virtual machine."""

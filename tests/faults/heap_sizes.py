"""Sizes in bytes of what the monitor takes from the heap, by which rules tell allocations apart."""

# The text and the link to the next one.
TXT_BUFFER = 528
ENTRY = 232
# The raw-port service's host name and instance name, each with its terminator.
PDL_HOST = 30
PDL_INSTANCE = 52

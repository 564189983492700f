"""The sweep of every call that the daemon makes: see tests/sweep."""

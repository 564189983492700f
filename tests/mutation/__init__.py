"""Changes one thing at a time in the daemon's sources and sees whether a test notices."""

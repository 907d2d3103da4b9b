"""What the daemon knows about its own process: threads and timings."""

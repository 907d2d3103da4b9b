"""A small stand-in for the daemon: just enough of it to run the tool health module at work."""

"""Handlers of the daemon's tools; the build puts the extension module ``health`` here."""

"""The demonstration: the stand-in daemon at work. Run it with ``python -m quorl_dendra.demo``."""

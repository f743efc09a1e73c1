"""The messages between a plugin and the hub, generated from interfaces/hublink.stp."""

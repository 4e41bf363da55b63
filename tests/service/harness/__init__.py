"""The real service in a world of its own: namespaces, a made-up /sys, real uevents, real mounts, peers on sockets."""

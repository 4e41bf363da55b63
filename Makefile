# What people type. Each target installs what it needs and is missing, and can be run again at any time.
.PHONY: help build test demo console bench install clean
.DEFAULT_GOAL := help

LABEL ?=
PEERS ?=
PORT ?= 8765

help:
	@echo "make demo              boot the virtual head unit, plug two sticks, show what the service tells whom"
	@echo "make console           the virtual head unit on a local web page (PORT=8765): plug, ask, watch"
	@echo "make test              build everything and run all tests"
	@echo "make test LABEL=unit   only the unit tests (no root); also: service, vm, asan, tsan, perf, fuzz"
	@echo "make build             build the service for this machine: build/native/usbservice/usbservice"
	@echo "make bench             measure the service beside the least it could cost (root)"
	@echo "make bench PEERS=\"udevd busybox\"   and Debian's programs that read the same events"
	@echo "make install           put the service in place on this machine (DESTDIR is honoured)"
	@echo "make clean             remove what was built; the cache of packages and kernel stays"

build:
	@tools/install-packages.sh build
	@tools/build.sh native

test:
	@tools/test.sh $(LABEL)

demo:
	@tools/demo.sh

console:
	@tools/console.sh $(PORT)

bench:
	@tools/bench.sh $(PEERS)

install: build
	@cmake --install build/native

clean:
	rm -rf build

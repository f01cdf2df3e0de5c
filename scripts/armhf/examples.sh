#!/bin/sh
# Runs the example programs on the virtual ARM machine: what configure does, show and ip must see.
set -eu
build/armhf/examples/configure --yes dummy0 10.0.0.1/24 10.0.0.2
build/armhf/examples/show
build/armhf/examples/show dummy0 | grep -F 10.0.0.1/24
ip -oneline address show dev dummy0 | grep -F 'inet 10.0.0.1/24'

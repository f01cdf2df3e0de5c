#!/bin/sh
# Runs the example programs in the virtual machine: what configure does, show and ip must see.
#
#     examples.sh BUILD    the folder in which they were built
set -eu
ip link add dummy0 type dummy
"$1/examples/configure" --yes dummy0 10.0.0.1/24 10.0.0.2
"$1/examples/show"
"$1/examples/show" dummy0 | grep -F 10.0.0.1/24
ip -oneline address show dev dummy0 | grep -F 'inet 10.0.0.1/24'

#!/usr/bin/env bash
# Builds soong-check for the machine it runs on, from Debian's Go packages of Soong (GOPATH mode).
# The Go build gets a clean environment: a cross build's CC, CXX, CFLAGS, GOARCH or CGO_* must not
# reach it. GOCACHE defaults to the user's Go cache, or, without a home, a folder beside OUTPUT.
#   scripts/soong-check/build.sh OUTPUT [GOCACHE]
set -euo pipefail
[ $# -eq 1 ] || [ $# -eq 2 ] || { echo "usage: $0 OUTPUT [GOCACHE]" >&2; exit 2; }
packages="golang-go golang-android-soong-dev golang-github-google-blueprint-dev golang-github-golang-protobuf-1-5-dev"
go=$(command -v go) || {
    echo "soong-check: go not found; install $packages (scripts/install-deps.sh base)" >&2
    exit 1
}
out=$(realpath -m "$1")
cache=${2:-$("$go" env GOCACHE)}
[ "$cache" != off ] || cache=$(dirname "$out")/go-cache
cache=$(realpath -m "$cache")
mkdir -p "$(dirname "$out")" "$cache"
cd "$(dirname "$0")"
env -i PATH="$PATH" GOPATH=/usr/share/gocode GO111MODULE=off GOENV=off GOFLAGS= CGO_ENABLED=0 \
    GOCACHE="$cache" "$go" build -o "$out" . || {
    echo "soong-check: the Go build failed; are $packages installed? (scripts/install-deps.sh base)" >&2
    exit 1
}

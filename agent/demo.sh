#!/bin/sh
# The Java part of `make demo`: runs a small program with a hot loop under the agent, lists its
# compiled methods and resolves points spread over the hot method, with their inline frames.
# Usage: agent/demo.sh BUILD_DIR OUT_DIR
set -eu
build=$1
out=$2
agent="$(cd "$build/agent" && pwd)/libjitagent.so"
rm -rf "$out"
mkdir -p "$out/classes" "$out/traces"
javac -d "$out/classes" tests/agent/InlineDemo.java
java -Xbatch -XX:-TieredCompilation -XX:CompileThreshold=2000 -XX:CompileCommand=quiet \
    -XX:CompileCommand=dontinline,jitdemo.InlineDemo::sink \
    "-agentpath:$agent=dir=$out/traces" -cp "$out/classes" jitdemo.InlineDemo >/dev/null

trace=$(ls "$out/traces")     # HOST.PID.jit
host=${trace%.*.jit}
pid=${trace%.jit}
pid=${pid##*.}
"$build/tools/jitreader" methods "$out/traces" | grep -E '^jit rva|jitdemo'
echo

# A point every 24 bytes of the last compiled version of hot, just after it was loaded.
"$build/tools/jitreader" methods --dump "$out/traces" | awk '
    /^Load time:/ { time = $3 }
    /^Name:/ { hot = ($2 == "jitdemo::InlineDemo::hot") }
    hot && /startAddr:/ { start = $2 }
    hot && /^  size:/ { last = time " " start " " $2 }
    END { print last }' | {
    read -r time start size
    offset=0
    while [ "$offset" -lt $((size)) ]; do
        printf '%d 0x%x %s %s\n' $((time + 1)) $((start + offset)) "$pid" "$host"
        offset=$((offset + 24))
    done
} >"$out/hot.samples"
"$build/tools/jitreader" resolve "$out/traces" --samples "$out/hot.samples"
echo
"$build/tools/jitreader" flamegraph "$out/traces" --samples "$out/hot.samples" -o "$out/flamegraph.svg" \
    --title "Flame graph of the hot Java method and the methods inlined into it"
echo "Open file://$(cd "$out" && pwd)/flamegraph.svg in a browser."

#!/bin/sh
# Runs one everyday V4L2 client on the virtual camera through 'orvo vcam' and checks what it got
# against the frames the SDK itself records from the same free-running source.
# Usage: v4l2_clients.sh ORVO_TOOL WORK_DIR CLIENT   (CLIENT: compliance, v4l2-ctl, gstreamer,
# ffmpeg, launcher). Exits 77 (skipped) when the client is not installed.
set -u
orvo=$1 work=$2 client=$3
node=/dev/video-clients-$client  # no file of that name exists: the virtual camera provides it
frame=721920
mkdir -p "$work" && cd "$work" || exit 1
rm -f ./*.raw ./*.png ./*.gray ./*.log

fail() { echo "FAIL ($client): $*"; exit 1; }
need() { command -v "$1" >/dev/null 2>&1 || { echo "SKIP: $1 is not installed (scripts/bootstrap.sh installs it)"; exit 77; }; }
vcam() { "$orvo" vcam --device "$node" "$@"; }
size() { wc -c <"$1" | tr -d ' '; }
# The SDK's own 30 frames of the built-in scene, free-running, as 'orvo record' writes them.
reference() {
  ORVO_VCAM_FPS=0 "$orvo" record --virtual --device "$node" --frames 30 --quiet --out sdk.raw >/dev/null 2>&1 \
    || fail "orvo record failed"
  [ "$(size sdk.raw)" -eq $((30 * frame)) ] || fail "orvo record wrote $(size sdk.raw) bytes"
}
# A client reading a stream that a device error ends after 9 frames must stop, not wait for ever.
ended_by_fault() {  # $1: what the client printed; $2: status (124 = killed by timeout)
  [ "$2" -ne 124 ] || fail "hung on a stream that a device error ended"
  grep -qi "input/output error\|failed" "$1" || fail "no error reported for the ended stream: $(cat "$1")"
}
[ -e "$node" ] && fail "$node exists as a file; the test needs a path that does not"

case $client in
compliance)
  need v4l2-compliance
  timeout 300 "$orvo" vcam --device "$node" --fps 0 -- v4l2-compliance -d "$node" -s 30 >compliance.log 2>&1
  status=$?
  grep "^Total for" compliance.log
  grep "warn:" compliance.log
  grep -q "Failed: 0," compliance.log && [ $status -eq 0 ] || { grep -B2 "fail:" compliance.log; fail "v4l2-compliance status $status"; }
  # A device error in the middle of its streaming tests is a failure it reports (EIO, errno 5),
  # and it goes on to the end.
  timeout 300 "$orvo" vcam --device "$node" --fps 0 --faults DQBUF@40=EIO -- v4l2-compliance -d "$node" -s 30 \
    >cut.log 2>&1
  status=$?
  [ $status -ne 124 ] || fail "hung on a stream that a device error ended"
  grep -q "fail:.*(got 5)" cut.log && grep -q "^Total for.*Failed: [1-9]" cut.log && [ $status -ne 0 ] \
    || fail "the device error went unreported (status $status): $(grep "^Total for" cut.log)"
  ;;
v4l2-ctl)
  need v4l2-ctl
  reference
  vcam -- timeout 60 v4l2-ctl -d "$node" --all >all.log 2>&1 || fail "--all: $(cat all.log)"
  grep -q "Width/Height *: 752/480" all.log && grep -q "Pixel Format *: 'YUYV'" all.log && grep -q "Field *: None" all.log \
    || fail "--all shows another format: $(cat all.log)"
  vcam -- timeout 60 v4l2-ctl -d "$node" --list-formats-ext >formats.log 2>&1 || fail "--list-formats-ext failed"
  grep -q "Size: Discrete 752x480" formats.log && grep -q "(30.000 fps)" formats.log || fail "formats: $(cat formats.log)"
  vcam --fps 0 -- timeout 60 v4l2-ctl -d "$node" --stream-mmap --stream-count=30 --stream-to=ctl.raw >/dev/null 2>&1 \
    || fail "--stream-mmap failed"
  [ "$(size ctl.raw)" -eq $((30 * frame)) ] || fail "--stream-to wrote $(size ctl.raw) bytes"
  cmp -s ctl.raw sdk.raw || fail "v4l2-ctl's frames differ from the SDK's"
  vcam --faults DQBUF@10=EIO -- timeout 60 v4l2-ctl -d "$node" --stream-mmap --stream-count=30 --stream-to=cut.raw >cut.log 2>&1
  ended_by_fault cut.log $?
  [ "$(size cut.raw)" -eq $((9 * frame)) ] || fail "with the fault: $(size cut.raw) bytes instead of 9 frames"
  ;;
gstreamer)
  need gst-launch-1.0
  reference
  vcam --fps 0 -- timeout 60 gst-launch-1.0 -q v4l2src device="$node" num-buffers=30 ! filesink location=gst.raw \
    >gst.log 2>&1 || fail "v4l2src: $(cat gst.log)"
  [ "$(size gst.raw)" -eq $((30 * frame)) ] || fail "filesink wrote $(size gst.raw) bytes"
  cmp -s gst.raw sdk.raw || fail "GStreamer's frames differ from the SDK's"
  # The picture as a viewer shows it. The pair travels as luma (one image) and chroma (the other),
  # so the PNG is tinted; read back as grey it must follow the luma of the SDK's first frame
  # (correlation about 0.95 here; with the other image of the pair it is about 0.5).
  vcam --fps 0 -- timeout 60 gst-launch-1.0 -q v4l2src device="$node" num-buffers=1 ! videoconvert ! pngenc ! \
    filesink location=scene.png >png.log 2>&1 || fail "PNG pipeline: $(cat png.log)"
  timeout 60 gst-launch-1.0 -q filesrc location=scene.png ! pngdec ! videoconvert ! video/x-raw,format=GRAY8 ! \
    filesink location=scene.gray >gray.log 2>&1 || fail "cannot read the PNG back: $(cat gray.log)"
  [ "$(size scene.gray)" -eq $((frame / 2)) ] || fail "the PNG is not 752 x 480"
  head -c $frame sdk.raw | od -An -v -tu1 -w2 | awk '{print $1}' >sdk-luma.txt
  od -An -v -tu1 -w1 scene.gray | paste - sdk-luma.txt | awk '
    { n++; sx += $1; sy += $2; sxx += $1 * $1; syy += $2 * $2; sxy += $1 * $2 }
    END { v = (n * sxx - sx * sx) * (n * syy - sy * sy); r = v > 0 ? (n * sxy - sx * sy) / sqrt(v) : 0
          printf "PNG against the luma of the SDK frame: correlation %.3f\n", r; exit !(r > 0.9) }' \
    || fail "the PNG does not show the SDK's picture"
  vcam --faults DQBUF@10=EIO -- timeout 60 gst-launch-1.0 v4l2src device="$node" num-buffers=30 ! fakesink >cut.log 2>&1
  status=$?
  ended_by_fault cut.log $status
  [ $status -ne 0 ] || fail "gst-launch-1.0 succeeded on a stream that a device error ended"
  ;;
ffmpeg)
  need ffmpeg
  reference
  vcam --fps 0 -- timeout 60 ffmpeg -nostdin -loglevel error -y -f v4l2 -i "$node" -frames:v 30 -fps_mode passthrough \
    -c:v rawvideo -f rawvideo ff.raw >ff.log 2>&1 || fail "ffmpeg: $(cat ff.log)"
  [ "$(size ff.raw)" -eq $((30 * frame)) ] || fail "ffmpeg wrote $(size ff.raw) bytes"
  cmp -s ff.raw sdk.raw || fail "ffmpeg's frames differ from the SDK's"
  vcam --faults DQBUF@10=EIO -- timeout 60 ffmpeg -nostdin -xerror -loglevel error -y -f v4l2 -i "$node" -frames:v 30 \
    -c:v rawvideo -f rawvideo cut.raw >cut.log 2>&1
  status=$?
  ended_by_fault cut.log $status
  [ $status -ne 0 ] || fail "ffmpeg succeeded on a stream that a device error ended"
  ;;
launcher)
  # The exit status passes through, the variables are quoted for the shell, the library is found.
  vcam -- sh -c 'exit 7'; [ $? -eq 7 ] || fail "the program's exit status is not passed through"
  vcam -- /nonexistent/program 2>/dev/null; [ $? -eq 127 ] || fail "a program that cannot run is not 127"
  env=$("$orvo" vcam --device "$node" --faults "DQBUF@10=EIO,open@3=EBUSY" --source "it's.raw" --print-env) || fail "--print-env"
  (eval "$env" && [ "$ORVO_VCAM_FAULTS" = "DQBUF@10=EIO,open@3=EBUSY" ] && [ "$ORVO_VCAM_SOURCE" = "raw:it's.raw" ] \
    && [ "$ORVO_VCAM_DEVICE" = "$node" ] && [ -f "${LD_PRELOAD##*:}" ] \
    && case ${LD_PRELOAD##*/} in libOrvo_virtual_camera.so*) true ;; *) false ;; esac) || fail "--print-env: $env"
  vcam -- sh -c 'test -c "$ORVO_VCAM_DEVICE" && test -r "$ORVO_VCAM_DEVICE"' || fail "the node is no readable character device"
  ;;
*) fail "unknown client" ;;
esac
echo "PASS ($client)"

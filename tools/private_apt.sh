# SPDX-License-Identifier: MIT
# Sourced by the tools that unpack packages into the user's cache: an apt of its own, which believes in an empty machine.

# private_apt ARCHITECTURE FOLDER: "${private_apt[@]}" are the options of apt-get from then on, for any user. Packages come
# from where the system's own apt gets its packages and land in FOLDER/cache/archives.
private_apt() {
    mkdir -p "$2"/{lists/partial,cache/archives/partial}
    : >"$2/status"
    private_apt=(-o "APT::Architecture=$1" -o "APT::Architectures=$1" -o APT::Sandbox::User=root
        -o "Dir::State::Lists=$2/lists" -o "Dir::State::status=$2/status" -o "Dir::Cache=$2/cache"
        -o Debug::NoLocking=1 -o APT::Install-Recommends=0)
    cd "$2/cache/archives"
    # A mirror that is being renewed need not stop us: what asks for packages says whether something is missing.
    apt-get -q "${private_apt[@]}" update >&2 || true
}

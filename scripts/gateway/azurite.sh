# shellcheck shell=bash disable=SC2034,SC2154 # variables of gateway.sh, which sources this file
# Azurite, the emulator of Azure Blob Storage, with its blobs in memory.

config=$dir/azurite.conf
daemons=azurite
protocol=azure
owner_key=owner owner_secret=$(printf 'secret of the owner' | base64)
program=$(azurite_folder)/node_modules/azurite/dist/src/blob/main.js

check_needs()
{
    need node openssl
    [[ -f $program ]] || die "Azurite is missing; scripts/install-deps.sh azurite installs it"
}

start_daemons()
{
    local port
    port=$(free_port)
    url=http://127.0.0.1:$port/$owner_key
    doing="starting the server"
    echo "account $owner_key" >"$config"
    # The first argument is its name, which says whose it is, because it reads no configuration file.
    # shellcheck disable=SC2016 # for the inner shell
    AZURITE_ACCOUNTS=$owner_key:$owner_secret launch azurite bash -c \
        'cd "${0%/*}" && exec -a "$0" node "$@"' "$config" "$program" --inMemoryPersistence --silent --blobHost 127.0.0.1 --blobPort "$port"
}

# Also succeeds if an earlier attempt has created it, although that one reported a failure.
create_container_azure()
{
    local date signature status fields
    date=$(LC_ALL=C date -u '+%a, %d %b %Y %H:%M:%S GMT')
    fields="x-ms-date:$date"$'\n'"x-ms-version:2021-12-02"
    signature=$(printf 'PUT\n\n\n\n\n\n\n\n\n\n\n\n%s\n/%s/%s/%s\nrestype:container' \
        "$fields" "$owner_key" "$owner_key" "$bucket" |
        openssl dgst -sha256 -mac HMAC -macopt "hexkey:$(base64 -d <<<"$owner_secret" | od -An -tx1 | tr -d ' \n')" \
            -binary | base64)
    status=$(curl --silent --max-time 10 --request PUT --header "x-ms-date: $date" --header "x-ms-version: 2021-12-02" \
        --header "Content-Length: 0" --header "Authorization: SharedKey $owner_key:$signature" \
        --output "$dir/bucket.out" --write-out '%{http_code}' "$1/$bucket?restype=container") || return
    [[ $status == 201 || $status == 409 ]]
}

write_env_azure()
{
    cat >"$dir/env" <<END
export CLOUDFS_TEST_AZURE_ENDPOINT=$1
export CLOUDFS_TEST_AZURE_CONTAINER=$bucket
export AZURE_STORAGE_ACCOUNT=$owner_key
export AZURE_STORAGE_KEY=$owner_secret
unset AZURE_STORAGE_CONNECTION_STRING
END
}

# ctest includes this file. Tests never ask the metadata service of the machine that they run on for credentials, and its
# user's files and variables name no endpoint for them.
set(ENV{AWS_EC2_METADATA_DISABLED} true)
set(ENV{AZURE_METADATA_DISABLED} true)
set(ENV{AWS_IGNORE_CONFIGURED_ENDPOINT_URLS} true)

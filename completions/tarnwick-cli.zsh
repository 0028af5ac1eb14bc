#compdef tarnwick-cli
# zsh completion for tarnwick-cli, installed as _tarnwick-cli. The commands, options and values
# here follow the manual page (man/tarnwick-cli.1); change both together.

(( $+functions[_tarnwick_cli_weights] )) || _tarnwick_cli_weights()
{
    _alternative 'values:value:(none)' 'files:weights file:_files -g "*.tten(-.)"'
}

local -a commands common weights
local modes='(hybrid semantic keyword text regex)' scopes='(pinned top5 all)'
commands=(
    'index:index a directory from scratch'
    'update:bring the index of a directory up to date'
    'watch:keep the index of a directory up to date until interrupted'
    'search:search the index of a directory'
    'prompt:print the prompt for a language model'
    'files:list the files of a directory, their chunks and why'
    'stats:show the counts of the index'
    'remove:drop files from the index'
    'compact:rewrite the index without removed chunks'
    'embed:print the vector of a text'
    'train:list, add, choose and train training profiles'
    'mcp:serve searches to an AI assistant (Model Context Protocol)'
)
common=('--verbose[show the engine diagnostics]' '(- *)'{-h,--help}'[print help]')
weights=('--weights=[encoder weights file, or none]:weights:_tarnwick_cli_weights')
walk=('*--exclude=[skip what a .gitignore pattern matches]:pattern'
      '--extensions=[extensions read as text, comma-separated]:extensions'
      '--max-file-size=[skip larger files]:megabytes')

if (( CURRENT == 2 )); then
    _arguments '(- *)--version[print the version]' '(- *)'{-h,--help}'[print help]' \
        '1:command:->command'
    [[ $state == command ]] && _describe -t commands 'tarnwick-cli command' commands
    return
fi

local command=${words[2]}
shift words
(( CURRENT-- ))
case $command in
    index)
        _arguments $common $weights \
            '--chunk-size=[chunk size in bytes]:bytes' \
            '--overlap=[bytes shared with the previous chunk]:bytes' \
            '--nice[index at idle CPU and disk priority]' \
            $walk \
            '1:directory:_files -/'
        ;;
    update|watch)
        _arguments $common $weights \
            '--chunk-size=[chunk size in bytes]:bytes' \
            '--overlap=[bytes shared with the previous chunk]:bytes' \
            '--json[print JSON]' \
            '--nice[index at idle CPU and disk priority]' \
            $walk \
            '1:directory:_files -/'
        ;;
    search)
        _arguments $common $weights \
            "--mode=[how the query is matched]:mode:$modes" \
            '-k+[number of results]:count' \
            '--all-chunks[one result per passage instead of per file]' \
            '--type=[only these kinds of file or extensions]:list' \
            '--in=[only files below this folder]:folder' \
            '--modified=[only files changed then]:date' \
            '(--vimgrep)--json[print JSON]' \
            '(--json)--vimgrep[print path\:line\:column\:text lines]' \
            '*:directory or query:_files -/'
        ;;
    prompt)
        _arguments $common $weights \
            "--mode=[how the query is matched]:mode:$modes" \
            '-k+[number of results]:count' \
            "--scope=[which results the prompt quotes]:scope:$scopes" \
            '--type=[only these kinds of file or extensions]:list' \
            '--in=[only files below this folder]:folder' \
            '--modified=[only files changed then]:date' \
            '1:directory:_files -/' '2:query:'
        ;;
    files)
        _arguments $common $walk '--json[print JSON]' '1:directory:_files -/'
        ;;
    stats)
        _arguments $common '--json[print JSON]' '1:directory:_files -/'
        ;;
    remove)
        _arguments $common '1:directory:_files -/' '*:file:_files'
        ;;
    compact)
        _arguments $common '1:directory:_files -/'
        ;;
    embed)
        _arguments $common $weights '1:text:'
        ;;
    mcp)
        _arguments $common $weights '*--folder=[a folder to serve]:folder:_files -/'
        ;;
    train)
        _arguments $common \
            '--json[print JSON]' \
            '--steps=[training steps]:steps' \
            '--batch=[chunks per step]:batch' \
            '--lr=[learning rate]:rate' \
            '--threads=[trainer threads]:threads' \
            '--heads=[attention heads]:heads' \
            '--layers=[encoder layers]:layers' \
            '--bpe[train a tokenizer first]' \
            '1:sub-command or profile:(profiles add default)' \
            '*:directory:_files -/'
        ;;
esac

# Completion of zorbel's and zorbel-capture's arguments for fish.

# The processes that we may look at: the file names of their executables, and their numbers.
function __zorbel_processes
    readlink /proc/*/exe 2>/dev/null | string replace -r ' \(deleted\)$' '' | string replace -r '.*/' '' | sort -u
    __zorbel_pids
end

function __zorbel_pids
    find /proc/*/exe -maxdepth 0 -lname '/*' -printf '%h\t%l\n' 2>/dev/null | string match -r '[0-9]+\t.*'
end

complete -c zorbel -a '(__zorbel_processes)'
complete -c zorbel -s a -l all -d 'Target all processes'
complete -c zorbel -s j -l json -rF -d 'Also write the report as JSON'
complete -c zorbel -s h -l help -d 'List the options'
complete -c zorbel -s t -l targetChildren -d 'Also target all descendants'
complete -c zorbel -s p -l proc -x -a '(__zorbel_processes)' -d 'Target a process by name or number'
complete -c zorbel -l pid -x -a '(__zorbel_pids)' -d 'Target a process by number'
complete -c zorbel -s x -l exclude -x -a '(__zorbel_processes)' -d 'Exclude a process'
complete -c zorbel -s s -l skip -d 'Skip processes that are idle-exit clean'
complete -c zorbel -s v -d 'List address spaces'
complete -c zorbel -s f -l format -x -a 'bytes formatted pages' -d 'Format of sizes'
complete -c zorbel -s y -l summary -d 'Fold clean categories and small segments'
complete -c zorbel -s w -l wide -d 'Show all columns'
complete -c zorbel -l swapped -d 'Show the swapped column'
complete -c zorbel -l wired -d 'Show the wired column'
complete -c zorbel -l physZorbel -d 'Break down the physical charge'
complete -c zorbel -l corpsePid -x -a '(__zorbel_pids)' -d 'Number of a corpse'
complete -c zorbel -l corpseName -x -d 'Name of a corpse'
complete -c zorbel -l corpseDirtyFlags -x -d 'Dirty flags of a corpse'
complete -c zorbel -l corpseProcFlags -x -d 'Process flags of a corpse'

complete -c zorbel-capture -f -a '(__zorbel_processes)'
complete -c zorbel-capture -s a -l all -d 'Save all processes'
complete -c zorbel-capture -s t -l targetChildren -d 'Also save all descendants'
complete -c zorbel-capture -s o -l output -rF -d 'File or directory for the graphs'
complete -c zorbel-capture -l force -d 'Replace existing files'
complete -c zorbel-capture -l physZorbel -d 'Break down the physical charge'
complete -c zorbel-capture -s h -l help -d 'List the options'

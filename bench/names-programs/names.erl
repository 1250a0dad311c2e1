%% Holds objects, and prints the size of all carriers that are mappings. To be run with +MMmcs 0, so that none is kept
%% that is not in use.

-module(names).
-export([main/0]).

main() ->
    Kept = [{I, integer_to_list(I), <<I:4096>>} || I <- lists:seq(1, 100000)],
    Allocators = [A || A <- erlang:system_info(alloc_util_allocators)],
    Mapped = lists:sum([carriers(erlang:system_info({allocator, A})) || A <- Allocators]),
    io:format("Erlang heap\t~b\tmapped~nready~n", [Mapped]),
    io:get_line(""),
    io:format("~b~n", [length(Kept)]),
    halt().

carriers(Instances) when is_list(Instances) ->
    lists:sum([size_of(Kind, Part) || {instance, _, Parts} <- Instances, {Kind, Part} <- Parts]);
carriers(_) -> 0.

%% The carriers in the pool are those that a scheduler has left to the others.
size_of(Kind, Part) when Kind =:= mbcs; Kind =:= sbcs -> sum(mseg_alloc_carriers_size, Part);
size_of(mbcs_pool, Part) -> sum(carriers_size, Part);
size_of(_, _) -> 0.

sum(Name, Part) -> lists:sum([element(2, Row) || Row <- Part, element(1, Row) =:= Name]).

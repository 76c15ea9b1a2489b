function opts = kelma_options (caller, args, opts)
% KELMA_OPTIONS  Name/value options of the kelma front ends (not for direct
% use): args holds pairs whose names must be fields of the defaults opts.
  if (mod (numel (args), 2) != 0)
    error ("kelma:argument", "%s: options come in name/value pairs", caller);
  end
  for k = 1:2:numel (args)
    name = args{k};
    if (! ischar (name) || ! isfield (opts, name))
      error ("kelma:argument", "%s: unknown option %s (expected one of: %s)", caller,
             disp_name (name), strjoin (fieldnames (opts)', ", "));
    end
    opts.(name) = args{k + 1};
  end
end

function s = disp_name (name)
  if (ischar (name))
    s = ["""" name """"];
  else
    s = ["of class " class(name)];
  end
end

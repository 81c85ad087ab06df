-- Which incidents stand behind a hang, newest first, and in which files are they?
--   signature  the id of the hang
--   from       first day
--   to         last day
--   top        number of incidents (20)
-- LIMIT BY instead of FINAL: only the rows of this hang are read whole.
SELECT time, device, program, watch, armed_seconds, fingerprint, reason_text AS reason, file
FROM fleet.incidents
WHERE signature_id = {signature:String} AND day BETWEEN {from:Date} AND {to:Date}
ORDER BY written_ms DESC, device, program
LIMIT 1 BY program, device, written_ms
LIMIT {top:UInt32}

<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

use Korlo\Settings\Client;
use Korlo\Settings\RefusedException;

/**
 * Carries out what a form asks for.
 *
 * Nobody's change is overwritten unseen. A save is a test-and-merge of the edited keys against the values that the form
 * was drawn with. The settings protocol cannot test that a key or group is absent, or erase under a condition; so add,
 * erase and restore read again just before, and say what they found.
 */
final class Editor
{
    private const MOST_TRIES = 10;
    private const LONGEST_LIST = 10;  // of keys in a message

    public function __construct(private readonly Store $store)
    {
    }

    /**
     * @param array<mixed> $fields of the form
     * @throws BadRequest
     */
    public function carryOut(array $fields): Outcome
    {
        $form = new Form($fields);
        $draft = $form->draft();
        if (Client::isRestricted($draft->group)) {
            throw new BadRequest('Nothing was changed: a group whose name holds “Secure” or “Trusted” is restricted, ' .
                'and no client can change it. Choose another name.', 403);
        }
        try {
            return match ($form->action()) {
                'save' => $this->save($draft),
                'add' => $this->add($draft, $form->isNewGroup()),
                'erase' => $this->erase($draft, $form->digest()),
                'restore' => $this->restore($draft, $form->digest()),
            };
        } catch (RefusedException) {
            return new Outcome('Nothing was changed: the access rules of the settings server do not let this page ' .
                'change ' . Text::quoted($draft->group) . '. Have the rules changed, or leave it.', 403, $draft);
        }
    }

    private function save(Draft $draft): Outcome
    {
        if ($draft->edits() === [] && $draft->newKey !== '') {
            return $this->add($draft, false);  // Enter in one of its fields presses the first button, which is save
        }
        for ($try = 0; $try < self::MOST_TRIES; ++$try) {
            $current = $this->store->group($draft->group) ?? [];
            foreach ($draft->edits() as $key => $mine) {
                if (($current[$key] ?? null) === $mine) {
                    $draft->was[$key] = $mine;  // somebody else had the same idea
                }
            }
            $edits = $draft->edits();
            $draft->conflicts = [];
            foreach (array_keys($edits) as $key) {
                if (($current[$key] ?? null) !== ($draft->was[$key] ?? null)) {
                    $draft->conflicts[$key] = $current[$key] ?? null;
                }
            }
            if ($draft->conflicts !== []) {
                return new Outcome('Nothing was saved: somebody else has changed ' .
                    self::listed(array_keys($draft->conflicts)) . ' of ' . Text::quoted($draft->group) .
                    ' since you saw it. Choose which value it shall be.', 409, $draft);
            }
            if ($edits === []) {
                return new Outcome('There was nothing to save in ' . Text::quoted($draft->group) . '.');
            }
            $expected = array_filter(array_intersect_key($draft->was, $edits), is_string(...));
            if ($this->merge($draft->group, $expected, $edits)) {
                return new Outcome('Saved ' . self::listed(array_keys($edits)) . ' of ' .
                    Text::quoted($draft->group) . '.');
            }
        }
        $name = Text::quoted($draft->group);
        return new Outcome("Nothing was saved: $name changes too often. Try again.", 503, $draft);
    }

    private function add(Draft $draft, bool $isNewGroup): Outcome
    {
        if ($draft->newKey === '') {
            return new Outcome('Nothing was added: a key needs a name. Fill it in.', 400, $draft);
        }
        $current = $this->store->group($draft->group);
        if ($isNewGroup && $current !== null) {
            return new Outcome('Nothing was added: there is a group ' . Text::quoted($draft->group) .
                ' already, with ' . self::described($current) . '. Add the key there.', 409, $draft);
        }
        if (isset($current[$draft->newKey])) {
            return new Outcome('Nothing was added: ' . Text::quoted($draft->group) . ' has a key ' .
                Text::quoted($draft->newKey) . ' already, with the value ' . Text::quoted($current[$draft->newKey]) .
                '. Edit it, or choose another name.', 409, $draft);
        }
        $this->merge($draft->group, [], [$draft->newKey => $draft->newValue]);
        $message = 'Added ' . Text::quoted($draft->newKey) . ' to ' . Text::quoted($draft->group) . '.';
        $rest = new Draft($draft->group, $draft->was, $draft->now);
        return new Outcome($message, 200, $rest->edits() === [] ? null : $rest);
    }

    private function erase(Draft $draft, string $digest): Outcome
    {
        [$current, $moved] = $this->readAgain($draft, $digest, 'erased', 'Erase');
        if ($moved !== null) {
            return $moved;
        }
        $this->store->client->erase($draft->group);
        return new Outcome('Erased ' . Text::quoted($draft->group) . ', which held ' . self::described($current) . '.');
    }

    private function restore(Draft $draft, string $digest): Outcome
    {
        [$before, $moved] = $this->readAgain($draft, $digest, 'restored', 'Restore');
        if ($moved !== null) {
            return $moved;
        }
        $this->store->client->restore($draft->group);
        $after = $this->store->group($draft->group);
        $name = Text::quoted($draft->group);
        if ($after === null) {
            return new Outcome("$name is gone: it has no defaults. It held " . self::described($before ?? []) . '.');
        }
        $told = [];
        foreach (array_keys($after + ($before ?? [])) as $key) {
            $old = isset($before[$key]) ? Text::quoted($before[$key]) : 'missing';
            $new = isset($after[$key]) ? Text::quoted($after[$key]) : 'gone';
            if ($old !== $new) {
                $told[] = Text::quoted((string)$key) . " was $old and is $new";
            }
        }
        $changes = self::shortened($told);
        return new Outcome($told === [] ? "$name had its defaults already." : "Restored $name: $changes.");
    }

    /**
     * What a group holds just before it is replaced, and the refusal if it is not what was drawn.
     *
     * @return array{?array<string>, ?Outcome}
     */
    private function readAgain(Draft $draft, string $digest, string $done, string $button): array
    {
        $name = Text::quoted($draft->group);
        if (!Store::canName($draft->group)) {
            throw new BadRequest("Nothing was $done: no request can name $name alone, since a name with an asterisk " .
                'stands for many groups, and one with a line break or “.” cannot be sent. Use korlo-settings set.');
        }
        $current = $this->store->group($draft->group);
        if (Store::digest($current) === $digest) {
            return [$current, null];
        }
        $found = $current === null ? 'It is gone' : 'It holds ' . self::described($current);
        return [$current, new Outcome("Nothing was $done: somebody else has changed $name since you saw it. $found. " .
            ($current === null ? '' : "Press $button again if that is what you want."), 409)];
    }

    /**
     * @param array<string> $expected
     * @param array<string> $changes
     */
    private function merge(string $group, array $expected, array $changes): bool
    {
        if ($expected === []) {
            $this->store->client->merge([$group => $changes]);
            return true;
        }
        return $this->store->client->testAndMerge([$group => $expected], [$group => $changes]);
    }

    /**
     * @param list<string|int> $keys
     */
    private static function listed(array $keys): string
    {
        return self::shortened(array_map(static fn(string|int $key): string => Text::quoted((string)$key), $keys));
    }

    /**
     * @param array<string> $values
     */
    private static function described(array $values): string
    {
        $told = [];
        foreach ($values as $key => $value) {
            $told[] = Text::quoted((string)$key) . ' = ' . Text::quoted($value);
        }
        return $told === [] ? 'no keys' : self::shortened($told);
    }

    /**
     * @param list<string> $entries
     */
    private static function shortened(array $entries): string
    {
        $more = count($entries) - self::LONGEST_LIST;
        return implode(', ', array_slice($entries, 0, self::LONGEST_LIST)) . ($more > 0 ? " and $more more" : '');
    }
}
